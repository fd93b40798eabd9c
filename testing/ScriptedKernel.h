/**
 * @file
 * A kernel made of a script, for tests of code that uses this library: no privileges, no network, no real kernel.
 *
 *     #include <ScriptedKernel.h>
 *     #include <vesk/netlink.h>
 *
 *     Vesk::Testing::ScriptedKernel kernel;                    // takes the kernel's place on this thread
 *     kernel.addInterface("wlan0", 3);                         // the only one that there is
 *     kernel.answer({Vesk::Testing::refusal(-ERANGE)});        // to the first request; later ones are acknowledged
 *
 *     std::string device = "wlan0";
 *     const int result   = kernel.run([&] { return Vesk::RTNetlinkSetGSOMaxSize(device, 16384); });
 *
 *     assert(result == -1);
 *     assert(kernel.requests().size() == 1 && kernel.requests()[0].datagram.size() == 40);
 *     assert(kernel.log().back().text == "RTNetlinkSetGSOMaxSize(): configuring gso max size failed for dev wlan0");
 *     assert(kernel.openSockets() == 0 && kernel.liveBlocks() == 0 && kernel.complaints().empty());
 *
 * Requests and answers can be written as a person reads them, with lengths that are computed: see Messages.h.
 *
 * A program that links `vesk::testing` has its own socket, setsockopt, bind, sendmsg, recvfrom and close for
 * AF_NETLINK, its own if_nametoindex, if_indextoname, rand, getpagesize, operators new and delete (those for
 * over-aligned types aside) and `LogMgr`; they win over those that the shared library imports. While no ScriptedKernel
 * lives on the calling thread, they do what they always do, and log lines go to standard error. Every log line leaves
 * nonsense in errno, as the platform's logger may: what a call reports there is the library's own word.
 */
#ifndef VESK_SCRIPTED_KERNEL_H
#define VESK_SCRIPTED_KERNEL_H

#include <LogMgr.h>
#include <Messages.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <linux/netlink.h>
#include <sys/socket.h>

namespace Vesk::Testing {

/// @addtogroup testing
/// @{

/// What one receive gets: a datagram, or a failure when `error` is an errno.
struct Reply {
    /// A datagram, or the errno of a receive that fails.
    Reply(Bytes bytes, int errorNumber = 0) : datagram(std::move(bytes)), error(errorNumber) {}
    Reply(const std::string& digits) : Reply(hex(digits)) {} ///< Sent as given, even if it is malformed.
    Reply(const char* digits) : Reply(hex(digits)) {}        ///< The same.

    Bytes datagram; ///< what is received, unless it fails
    int error;      ///< errno of the receive
};

Reply failedReceive(int error);        ///< -1 and this errno.
std::string refusal(int error);        ///< NLMSG_ERROR, 36 bytes, with this (negative) error and no extended text.
std::string acknowledgement();         ///< NLMSG_ERROR with error 0.
std::string endOfDump(int status = 0); ///< NLMSG_DONE with this status.

/// A datagram that was sent, and the socket that it went through.
struct Request {
    int socketType;                          ///< as given to socket()
    int protocol;                            ///< as given to socket()
    std::vector<std::array<int, 3>> options; ///< level, name and value of each setsockopt()
    sockaddr_nl address;                     ///< as given to bind()
    std::vector<std::size_t> scatter;        ///< lengths of the blocks given to sendmsg()
    Bytes datagram;                          ///< the blocks joined
};

/// What the library said to its logger.
struct LogLine {
    log_level level;       ///< as given to doLog()
    std::string source;    ///< as given to doLog()
    std::string format;    ///< as given to doLog()
    std::string text;      ///< the format with its arguments
    unsigned int line = 0; ///< in the source

    /// The line number is not compared.
    bool operator==(const LogLine& other) const;
};

/// What can be made to fail. `Allocate` is an operator new that yields null then, `AllocateOrThrow` one that throws;
/// both during `run` only.
enum class Call {
    Socket,
    SetSockOpt,
    Bind,
    SendMsg,
    RecvFrom,
    Close,
    NameToIndex,
    IndexToName,
    Allocate,
    AllocateOrThrow
};

/// Keeps the log lines of the calling thread while it lives, also on a real kernel; one at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&)            = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines; ///< In the order in which they were logged.
    bool drop = false;          ///< Keep none from here on: the logger returns at once.
};

/// Is told of each datagram that a real kernel answers with and, without one, of each descriptor that is closed.
using ReplyWatcher = void(int descriptor, const void* datagram, std::size_t size);

/// Tells it of those of all threads from now on; nobody when it is null, as at first.
void watchReplies(ReplyWatcher* watcher);

/// A kernel that says what a test tells it to say.
class ScriptedKernel {
public:
    ScriptedKernel();  ///< Takes the kernel's place for the calling thread; one at a time.
    ~ScriptedKernel(); ///< Gives it back.
    ScriptedKernel(const ScriptedKernel&)            = delete;
    ScriptedKernel& operator=(const ScriptedKernel&) = delete;

    // The script

    void addInterface(const std::string& name, unsigned int index); ///< For look-ups of its name or its index.
    void setRandom(int value);                                      ///< What rand() returns; 0 at first.
    /// What getpagesize() returns: at first 4,096, or what the environment variable VESK_PAGE_SIZE says.
    void setPageSize(int bytes);

    /**
     * What the next request without a script gets, one reply a receive. A request that finds no script gets what
     * kernels say when all is well: the end of a dump, or an acknowledgement where one was asked for.
     */
    void answer(std::vector<Reply> replies);
    void answerAsUsual(); ///< Leaves the next request to what kernels say when all is well.
    void answerEach(const std::vector<std::vector<Reply>>& all); ///< One request each; an empty one as usual.

    void fail(Call call, int error,
              int nth = 1);                ///< The nth of these calls, counted from the start, sets errno, fails.
    void miscountSends(int by);            ///< Sends report so many bytes more than they sent.
    void dropLog() { logged.drop = true; } ///< Keeps no log lines from here on: the logger returns at once.
    void numberSockets(int from); ///< Descriptors of the sockets to come. Usually they are far from any real one.

    /// Calls, watching the allocations of the calling thread meanwhile, and returns what the call returned. To be used
    /// on the thread that made the ScriptedKernel, and not from inside itself. What is returned counts as a live block
    /// where it holds one.
    template <typename Function>
    auto run(Function function)
    {
        const Watch watch(*this);
        return function();
    }

    void abandon(); ///< After a jump out of `run`: closes the sockets that are open, frees the blocks that live.

    // What happened

    const std::vector<Request>& requests() const { return sent; }    ///< In the order in which they were sent.
    const std::vector<LogLine>& log() const { return logged.lines; } ///< In the order in which they were logged.
    /// What the buffer of each receive held before it: as many bytes as were asked for.
    const std::vector<Bytes>& receiveBuffers() const { return buffers; }
    int count(Call call) const;                                ///< How often it was called.
    std::size_t openSockets() const { return sockets.size(); } ///< Not closed yet.
    std::size_t liveBlocks() const { return blocks.size(); }   ///< Allocated in the last `run` and not freed in it.
    const std::vector<Bytes>& freedBlocks() const { return freed; } ///< What they held, in the order of their release.
    std::size_t unreadReplies() const;                              ///< Scripted, but never received.

    /// Misuse that a kernel would refuse, in words: a receive past the script (it fails with ENODATA), the use
    /// of a closed socket, flags and addresses where none belong; and a block released by the other form of delete.
    const std::vector<std::string>& complaints() const { return wrong; }

    /// The far side of the calls that this takes the place of.
    struct Hooks;

private:
    struct Socket {
        Request asOpened = {};
        std::deque<Reply> replies;
    };
    struct Script {
        bool asUsual;
        std::vector<Reply> replies;
    };
    struct Watch {
        explicit Watch(ScriptedKernel& kernel);
        ~Watch();
    };

    static constexpr int kFirstSocket = 1 << 20; // far from any real descriptor

    bool fails(Call call);
    std::vector<Reply> repliesTo(const Request& request);

    std::map<int, Socket> sockets;
    std::map<std::string, unsigned int> interfaces;
    std::deque<Script> scripts;
    std::map<Call, int> calls;
    std::map<std::pair<Call, int>, int> failures;
    std::vector<Request> sent;
    std::vector<Bytes> buffers;
    LogCapture logged;
    struct Block {
        std::size_t size;
        bool array;
    };

    std::unordered_map<void*, Block> blocks;
    std::vector<Bytes> freed;
    std::size_t lost = 0; // replies of sockets that were closed
    int randomNumber = 0;
    int pageSize;
    int nextSocket = kFirstSocket;
    int miscount   = 0;
    std::vector<std::string> wrong;
};

/// @}

} // namespace Vesk::Testing

#endif
