#!/usr/bin/env python3
"""Makes the sample Windows Installer package, "Ravlin Tools", from generated files.

  make_package.py OUT.msi [--files N] [--bytes N]

The same arguments give the same package, byte for byte: names, contents, identifiers and times are fixed by them.
The files hold noise, so that the package is about as large as what it installs.
"""

import argparse
import os
import pathlib
import random
import re
import struct
import subprocess
import tempfile
import uuid
from xml.sax.saxutils import quoteattr

TIME = 1262304000  # of every file, 2010-01-01
NAMESPACE = uuid.UUID("6f2b8f3e-5a0c-4c53-9d0e-7a1f30c1a7de")
# No names outside code page 1252: wixl loses them.
FOLDERS = [
    "",
    "bin",
    "bin/plugins",
    "drivers/display/x64",
    "drivers/network/x64/release",
    "drivers/storage/x64/release/2010/signed/catalog/files",
    "help/de/Einführung",
    "help/es/Guía del usuario",
    "help/fr/Démarrage rapide",
    "help/en/Getting started with the tools",
]
EXTENSIONS = ["dll", "exe", "sys", "inf", "cat", "txt", "html"]


def guid(text):
    """The identifier that belongs to `text` for ever."""
    return "{" + str(uuid.uuid5(NAMESPACE, text)).upper() + "}"


def sizes(count, total):
    """`count` sizes, few large and many small, that add up to about `total`."""
    noise = random.Random("sizes")
    weights = [noise.lognormvariate(0, 1) for _ in range(count)]
    return [int(weight * total / sum(weights)) for weight in weights]


def file_tree(count):
    """The names of the files as nested dictionaries; a file is the number of its source."""
    tree = {}
    for index in range(count):
        folder = FOLDERS[index % len(FOLDERS)]
        name = f"rltools{index:03}.{EXTENSIONS[index % len(EXTENSIONS)]}"
        if folder.startswith("help"):
            name = f"{folder.rsplit('/', 1)[1]} {index:03}.html"
        node = tree
        for part in folder.split("/") if folder else []:
            node = node.setdefault(part, {})
        node[name] = index
    return tree


def directory_xml(tree, path=""):
    """The folders and files of `tree` in the language of the package's description."""
    text = ""
    for name, child in sorted(tree.items(), key=lambda item: item[0]):
        inner = f"{path}/{name}"
        if isinstance(child, dict):
            number = uuid.uuid5(NAMESPACE, inner).hex[:12]
            text += f"<Directory Id='d{number}' Name={quoteattr(name)}>{directory_xml(child, inner)}</Directory>\n"
        else:
            text += (f"<Component Id='c{child}' Guid='{guid(inner)}' Win64='yes'>"
                     f"<File Id='f{child}' Name={quoteattr(name)} Source='f{child}' KeyPath='yes'/></Component>\n")
    return text


def package_xml(count, total):
    components = "".join(f"<ComponentRef Id='c{index}'/>" for index in range(count))
    return f"""<?xml version='1.0' encoding='utf-8'?>
<Wix xmlns='http://schemas.microsoft.com/wix/2006/wi'>
<Product Id='{guid(f"product {count} {total}")}' Name='Ravlin Tools' Version='1.0.0' Language='1033' Manufacturer='Ravlin'
  UpgradeCode='{guid("upgrade")}'>
<Package InstallerVersion='200' Compressed='yes' InstallScope='perMachine'
  Languages='1033' Description='Ravlin Tools'/>
<Media Id='1' Cabinet='tools.cab' EmbedCab='yes'/>
<Directory Id='TARGETDIR' Name='SourceDir'><Directory Id='ProgramFiles64Folder'>
<Directory Id='Ravlin' Name='Ravlin'><Directory Id='INSTALLDIR' Name='Ravlin Tools'>
{directory_xml(file_tree(count))}
</Directory></Directory></Directory></Directory>
<Feature Id='Complete' Level='1'>{components}</Feature>
</Product></Wix>
"""


def fix_summary(data, code):
    """Replaces what wixl draws anew each time: the package's code, and two times behind it."""
    found = re.search(rb"\{[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\}.{2,6}(\x40\0\0\0.{8}){2}", data, re.DOTALL)
    typed_time = b"\x40\0\0\0" + struct.pack("<Q", (TIME + 11644473600) * 10_000_000)
    fixed = code.encode() + found[0][len(code):-2 * len(typed_time)] + 2 * typed_time
    return data[:found.start()] + fixed + data[found.end():]


def make(out, count, total):
    with tempfile.TemporaryDirectory(dir=out.parent) as name:
        work = pathlib.Path(name)
        noise = random.Random("contents")
        for index, size in enumerate(sizes(count, total)):
            (work / f"f{index}").write_bytes(noise.randbytes(size))
            os.utime(work / f"f{index}", (TIME, TIME))
        (work / "package.wxs").write_text(package_xml(count, total), encoding="utf-8")
        subprocess.run(["wixl", "-a", "x64", "-o", "package.msi", "package.wxs"], cwd=work, check=True)
        package = (work / "package.msi").read_bytes()
        (work / "package.msi").write_bytes(fix_summary(package, guid(f"package {count} {total}")))
        (work / "package.msi").rename(out)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("out", type=pathlib.Path)
    parser.add_argument("--files", type=int, default=300)
    parser.add_argument("--bytes", type=int, default=30 << 20)
    arguments = parser.parse_args()
    make(arguments.out.resolve(), arguments.files, arguments.bytes)


if __name__ == "__main__":
    main()
