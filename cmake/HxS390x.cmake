# The toolchain of the preset s390x: a big-endian machine, whose programs run here by emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_C_COMPILER s390x-linux-gnu-gcc)  # GoogleTest asks for one
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
# Where scripts/test.sh puts the character sets, which the cross libraries lack.
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH hx_project)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x-static -L /usr/s390x-linux-gnu
    -E GCONV_PATH=${hx_project}/build/s390x-libc/usr/lib/s390x-linux-gnu/gconv)
