# What the toolchain files share: Debian's cross compiler for `architecture`, which Debian's own name
# for the compiler, `triplet`, leads to. `emulator` is the command that runs its programs here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_STRIP ${triplet}-strip)
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator};-L;/usr/${triplet})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})
