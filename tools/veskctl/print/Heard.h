// What errno does not say, the library's log does, in lines of these formats. A test looks for each in its sources.
#ifndef VESKCTL_HEARD_H
#define VESKCTL_HEARD_H

// The kernel's words, which begin behind a piece of the format.
inline constexpr const char* kKernelSays = "%s(): EXTACK reports %s";
inline constexpr const char* kSaysBehind = "reports ";

// That it was the kernel who refused.
inline constexpr const char* kKernelRefuses[] = {
    "%s(): kernel reports error %d",
    "%s(): kernel reports errno [%d, %s]",
    "%s(): NL dump reports errno [%d, %s]",
};

// The request may have been carried out, or not.
inline constexpr const char* kUnanswered = "%s(): receiving NL ACK from kernel failed: errno=[%d, %s]";

// Steps that failed while the operation went on.
inline constexpr const char* kTxNotUpdated   = "%s(): updating TX XFRM state failed\n";
inline constexpr const char* kRxNotUpdated   = "%s(): updating RX XFRM state failed\n";
inline constexpr const char* kCountersUnread = "%s(): failed to query XFRM";
inline constexpr const char* kTxCountersStay = "%s(): updating sequence TX failed\n";
inline constexpr const char* kRxCountersStay = "%s(): updating sequence RX failed\n";

#endif
