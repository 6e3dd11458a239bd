# The board's toolchain: Debian's cross compiler with musl, which scripts/setup unpacks.

# Settings of this processor. A file for another processor differs only here.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(compiler mipsel-linux-gnu)  # Debian's prefix of the cross compiler
set(musl mipsel-linux-musl)     # Debian's folder of musl for the processor
set(loader ld-musl-mipsel.so.1)
# Calling libc through a table of jumps makes the binary a tenth smaller than calling it through registers. The board's
# platform builds its packages in the compressed instruction set (MIPS16). libc uses the ordinary one; calls and returns
# switch between the two.
set(processor_flags "-mplt -mips16 -minterlink-mips16")

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${compiler}-gcc)
set(CMAKE_CXX_COMPILER ${compiler}-g++)

get_filename_component(board_root ${CMAKE_CURRENT_LIST_DIR}/../build/${CMAKE_SYSTEM_PROCESSOR}-root ABSOLUTE)
set(musl_libraries ${board_root}/usr/lib/${musl})
if(NOT EXISTS ${musl_libraries}/crt1.o)
    message(FATAL_ERROR "no ${musl_libraries}/crt1.o: scripts/setup unpacks musl, for mipsel alone")
endif()

execute_process(COMMAND ${CMAKE_C_COMPILER} -print-file-name=include
                OUTPUT_VARIABLE compiler_headers OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_C_COMPILER} -dumpversion
                OUTPUT_VARIABLE compiler_version OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(cxx_headers /usr/${compiler}/include/c++/${compiler_version})

set(musl_headers "-isystem ${board_root}/usr/include/${musl} \
-isystem ${board_root}/usr/include/kernel -isystem ${compiler_headers}")
set(CMAKE_C_FLAGS_INIT "-nostdinc ${musl_headers} -fno-pie ${processor_flags}")
# The C++ headers were configured for glibc and ask for its version. The daemon uses only parts of the standard library
# that are complete in the headers, so any version will do.
set(CMAKE_CXX_FLAGS_INIT "-nostdinc '-D__GLIBC_PREREQ(a,b)=0' -isystem ${cxx_headers} \
-isystem ${cxx_headers}/${compiler} ${musl_headers} -fno-pie ${processor_flags}")

# Nothing unwinds the stack at run time, so unwind tables would be dead weight.
string(APPEND CMAKE_CXX_FLAGS_INIT " -fno-asynchronous-unwind-tables -fno-unwind-tables")

# Leave out the compiler's own start-up files: they serve exceptions and the unloading of libraries, and the dynamic
# linker runs constructors without them. With the smallest page size the data follows the code directly in the file;
# otherwise there is padding up to the next 4 kB, and the file grows in steps of 4 kB.
set(CMAKE_C_LINK_EXECUTABLE "<CMAKE_C_COMPILER> <FLAGS> -nostdlib -no-pie -Wl,--as-needed -Wl,-z,common-page-size=4 \
-Wl,--dynamic-linker=/lib/${loader} -L${board_root}/lib/${musl} -L${musl_libraries} \
<LINK_FLAGS> ${musl_libraries}/crt1.o ${musl_libraries}/crti.o <OBJECTS> -o <TARGET> <LINK_LIBRARIES> \
-lc -lgcc ${musl_libraries}/crtn.o")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_FIND_ROOT_PATH ${board_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
