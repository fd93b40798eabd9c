// The ways to ask.
#ifndef VESK_BENCH_COLUMNS_H
#define VESK_BENCH_COLUMNS_H

#include "Ask.h"

namespace Bench {

// Builds the request that the floor sends. The ask must stay where it is.
void prebuild(Ask& ask);

void viaFloor(const Ask& ask);   // the same system calls as this library's, and the least check of the reply
void viaMnl(const Ask& ask);     // a socket for each request, as the library has it
void viaKeptMnl(const Ask& ask); // one socket for all
void viaNl(const Ask& ask);
void viaKeptNl(const Ask& ask);
void viaProcess(const std::vector<std::string>& command);

} // namespace Bench

#endif
