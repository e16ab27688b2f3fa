// A table that only grows: entries are looked up and inserted by any number of threads without a lock and
// stay where they are until the process ends. For caches that live in static storage; there is no destructor,
// so that late threads may still read.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

// Traits: using Key; static size_t Hash(Key); static bool Equal(Key, Key); static Key Of(const Value&).
template <typename Value, size_t BUCKETS, typename Traits>
class HashTable {
public:
    using Key = typename Traits::Key;

    // Null when the key is absent. Never allocates.
    const Value* Find(Key key) const {
        return FindIn(buckets_[Traits::Hash(key) % BUCKETS].load(std::memory_order_acquire), key);
    }

    // Inserts unless the key is present by then; gives the value that is in the table either way.
    const Value* Insert(Value value) {
        auto node = std::make_unique<Node>(Node{std::move(value), nullptr});
        const Key key = Traits::Of(node->value);
        std::atomic<Node*>& bucket = buckets_[Traits::Hash(key) % BUCKETS];
        node->next = bucket.load(std::memory_order_acquire);
        do {
            if (const Value* present = FindIn(node->next, key)) {
                return present;
            }
        } while (!bucket.compare_exchange_weak(node->next, node.get(), std::memory_order_acq_rel));
        return &node.release()->value;
    }

private:
    struct Node {
        Value value;
        Node* next;
    };

    static const Value* FindIn(const Node* node, Key key) {
        while (node != nullptr && !Traits::Equal(Traits::Of(node->value), key)) {
            node = node->next;
        }
        return node != nullptr ? &node->value : nullptr;
    }

    std::array<std::atomic<Node*>, BUCKETS> buckets_{};
};

// Installs an object that is made on first use: a thread that loses the race frees its own and takes the
// winner's.
template <typename Object>
Object& HashTable_Install(std::atomic<Object*>* slot) {
    Object* present = slot->load(std::memory_order_acquire);
    if (present == nullptr) {
        auto made = std::make_unique<Object>();
        if (slot->compare_exchange_strong(present, made.get(), std::memory_order_acq_rel)) {
            present = made.release();
        }
    }
    return *present;
}
