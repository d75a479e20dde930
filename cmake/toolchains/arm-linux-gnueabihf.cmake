# Debian's cross compiler for the appliance's processor (armhf), its programs run by qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(triplet arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_STRIP ${triplet}-strip)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/${triplet})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
