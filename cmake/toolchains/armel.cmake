# ARMv5, without a floating-point unit. Emulated as a processor that knows no newer instruction: what
# the compiler should not have used fails here, not on the appliance.
set(CMAKE_SYSTEM_PROCESSOR armv5tel)
set(architecture armel)
set(triplet arm-linux-gnueabi)
set(emulator qemu-arm;-cpu;arm926)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
