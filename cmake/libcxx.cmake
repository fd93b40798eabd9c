# What the device has, as far as this machine can play it: clang, its C++ library with assertions, thread_local as older
# platforms have it, and a C library without what is glibc's own (see libcxx.h).
set(VESK_LIBCXX TRUE)
set(CMAKE_CXX_COMPILER clang++)
string(JOIN " " CMAKE_CXX_FLAGS_INIT -stdlib=libc++ -D_LIBCPP_DEBUG=0 -femulated-tls
       -isystem ${CMAKE_BINARY_DIR}/absent -include ${CMAKE_CURRENT_LIST_DIR}/libcxx.h)
foreach(header aio argp argz crypt envz execinfo fmtmsg gnu/libc-version libintl mcheck monetary mqueue obstack
               printf wordexp)
  file(WRITE ${CMAKE_BINARY_DIR}/absent/${header}.h "#error the platform has no <${header}.h>\n")
endforeach()
