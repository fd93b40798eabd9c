// Included ahead of every source in the preset `libcxx`: there, what is glibc's own does not compile.

// The platform's C library declares nothing noexcept. A definition that takes a declared function's place must agree.
#include <features.h>
#undef __THROW
#undef __THROWNL
#undef __NTH
#undef __NTHNL
#define __THROW
#define __THROWNL
#define __NTH(function)   function
#define __NTHNL(function) function

// Once these have declared them, the names below are errors.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <math.h>
#include <net/if.h>
#include <netdb.h>
#include <pthread.h>
#include <sched.h>
#include <search.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>
#include <wchar.h>

// Never there
#undef strdupa
#undef strndupa
#pragma GCC poison explicit_bzero program_invocation_name program_invocation_short_name strverscmp rawmemchr strfry
#pragma GCC poison canonicalize_file_name get_current_dir_name euidaccess eaccess group_member rpmatch on_exit getpt
#pragma GCC poison random_r srandom_r initstate_r setstate_r drand48_r lrand48_r mrand48_r
#pragma GCC poison fcloseall fopencookie tmpnam_r cuserid confstr getpass malloc_trim
#pragma GCC poison pthread_cancel pthread_testcancel pthread_setcancelstate pthread_setcanceltype
#pragma GCC poison pthread_tryjoin_np pthread_timedjoin_np pthread_mutexattr_setrobust pthread_mutex_consistent
#pragma GCC poison dlmopen dlinfo getaddrinfo_a shm_open shm_unlink sigisemptyset sigandset sigorset
#pragma GCC poison getcontext setcontext makecontext swapcontext
// There from API level 33 on, or later
#pragma GCC poison strerrorname_np strerrordesc_np sigabbrev_np sigdescr_np qsort_r secure_getenv copy_file_range
#pragma GCC poison close_range closefrom pthread_setaffinity_np pthread_getaffinity_np
