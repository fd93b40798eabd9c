// Keeps what a real kernel answers, for the fuzz targets to start from. Internal: what takes the place of recvfrom()
// and close() tells it. When the environment variable VESK_RECORD_REPLIES names a folder, each exchange of a new kind
// becomes a file there: for each datagram its length (2 bytes, in the machine's order) and its bytes.
#ifndef VESK_REPLY_RECORDER_H
#define VESK_REPLY_RECORDER_H

#include <cstddef>

namespace Vesk::Testing {

void recordReply(int descriptor, const void* datagram, std::size_t size);
void endRecording(int descriptor);

} // namespace Vesk::Testing

#endif
