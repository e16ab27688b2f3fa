# ICU's common library, for the conversion of character sets: target `icuuc`, with its headers.
# For Windows it is the static library that scripts/build-icu.sh puts into the cache, and RL_ICU_DATA is the
# converters' data file, to stand beside a program. Natively it is the distribution's library of the same version,
# which brings its data along; RL_ICU_DATA is empty.
add_library(icuuc INTERFACE)
if(WIN32)
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/build-icu.sh --path
    OUTPUT_VARIABLE icu_path OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(RL_ICU_DATA ${icu_path}/data/icudt38l.dat)
  if(NOT EXISTS ${icu_path}/lib/libicuuc.a OR NOT EXISTS ${RL_ICU_DATA})
    message(FATAL_ERROR "ICU for Windows is not in ${icu_path}: run scripts/setup.sh")
  endif()
  target_include_directories(icuuc SYSTEM INTERFACE ${icu_path}/include)
  target_compile_definitions(icuuc INTERFACE U_STATIC_IMPLEMENTATION)
  # ICU counts on a newer Windows than the oldest guests have.
  rl_library(olderWindows WIN32 ${PROJECT_SOURCE_DIR}/lib/misc/olderWindowsWin32.cpp)
  target_link_libraries(icuuc INTERFACE ${icu_path}/lib/libicuuc.a olderWindows)
else()
  find_library(icu_library icuuc)
  find_path(icu_include unicode/ucnv.h)
  if(NOT icu_library OR NOT icu_include)
    message(FATAL_ERROR "ICU is not installed (package libicu-dev): run scripts/setup.sh")
  endif()
  set(RL_ICU_DATA "")
  target_include_directories(icuuc SYSTEM INTERFACE ${icu_include})
  target_link_libraries(icuuc INTERFACE ${icu_library})
endif()
