// Keeps what a real kernel answers, for the fuzz targets to start from.
#ifndef REPLY_RECORDER_H
#define REPLY_RECORDER_H

namespace Vesk::Testing {

// Makes each exchange of a new kind a file in this folder: for each datagram its length (2 bytes, in the machine's
// order) and its bytes.
void recordReplies(const char* folder);

} // namespace Vesk::Testing

#endif
