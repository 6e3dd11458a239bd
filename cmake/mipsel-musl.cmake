# The board's toolchain: Debian's cross compiler for little-endian MIPS with musl, which scripts/setup unpacks.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)

set(board_root ${CMAKE_CURRENT_LIST_DIR}/../build/mipsel-root)
get_filename_component(board_root ${board_root} ABSOLUTE)
set(musl_libraries ${board_root}/usr/lib/mipsel-linux-musl)
if(NOT EXISTS ${musl_libraries}/crt1.o)
    message(FATAL_ERROR "musl for MIPS is not there: run scripts/setup")
endif()

execute_process(COMMAND ${CMAKE_C_COMPILER} -print-file-name=include
                OUTPUT_VARIABLE compiler_headers OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_C_COMPILER} -dumpversion
                OUTPUT_VARIABLE compiler_version OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(cxx_headers /usr/mipsel-linux-gnu/include/c++/${compiler_version})

# The C++ headers were configured for glibc and ask for its version; what the daemon uses of them lives in headers
# alone and needs no more than an answer.
set(musl_headers "-isystem ${board_root}/usr/include/mipsel-linux-musl \
-isystem ${board_root}/usr/include/kernel -isystem ${compiler_headers}")
# Calls of libc through a table of jumps are a tenth smaller than through registers. The compressed instruction set is
# what the board's platform builds its packages with; the C library is in the ordinary one, and calls and returns change
# between the two.
set(processor "-fno-pie -mplt -mips16 -minterlink-mips16")
set(CMAKE_C_FLAGS_INIT "-nostdinc ${musl_headers} ${processor}")
set(CMAKE_CXX_FLAGS_INIT "-nostdinc '-D__GLIBC_PREREQ(a,b)=0' -isystem ${cxx_headers} \
-isystem ${cxx_headers}/mipsel-linux-gnu ${musl_headers} ${processor}")

# Nothing walks the stack at run time.
string(APPEND CMAKE_CXX_FLAGS_INIT " -fno-asynchronous-unwind-tables -fno-unwind-tables")

# Without the compiler's own start-up files, which serve exceptions and the unloading of libraries; the dynamic linker
# runs constructors without them. The smallest unit of pages puts the data right behind the code in the file: else it
# is filled up to the next 4 kB, and grows by so much at once.
set(CMAKE_C_LINK_EXECUTABLE "<CMAKE_C_COMPILER> <FLAGS> -nostdlib -no-pie -Wl,--as-needed -Wl,-z,common-page-size=4 \
-Wl,--dynamic-linker=/lib/ld-musl-mipsel.so.1 -L${board_root}/lib/mipsel-linux-musl -L${musl_libraries} \
<LINK_FLAGS> ${musl_libraries}/crt1.o ${musl_libraries}/crti.o <OBJECTS> -o <TARGET> <LINK_LIBRARIES> \
-lc -lgcc ${musl_libraries}/crtn.o")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_FIND_ROOT_PATH ${board_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
