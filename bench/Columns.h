// The ways to ask.
#ifndef VESK_BENCH_COLUMNS_H
#define VESK_BENCH_COLUMNS_H

#include "Ask.h"

#include <sys/uio.h>

namespace Bench {

// The request, piece by piece, as this library hands it to the kernel.
std::vector<Bytes> blocksOf(const Ask& ask);

// The same system calls as this library's, with a request built beforehand and the least check of the reply.
void viaFloor(const Ask& ask, const std::vector<iovec>& blocks);

void viaMnl(const Ask& ask);     // a socket for each request, as the library has it
void viaKeptMnl(const Ask& ask); // one socket for all
void viaNl(const Ask& ask);      // a socket for each request
void viaProcess(const std::vector<std::string>& command);

} // namespace Bench

#endif
