#include "ScriptedKernel.h"

#include <FormatLogLine.h>
#include <Wipe.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include <dlfcn.h>
#include <net/if.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Vesk::Testing {

namespace {

// How many there are, of all threads. While there is none, close() and its like ask for nothing thread_local. Where
// that is emulated (by clang for Android), it allocates, and an allocator that starts may call close() itself.
int living                          = 0;
thread_local ScriptedKernel* active = nullptr;
thread_local LogCapture* capture    = nullptr;
thread_local bool watching          = false; // allocations are those of the code under test
ReplyWatcher* replyWatcher          = nullptr;

// Of this thread. Not told to ThreadSanitizer, which asks for the size of a page before it can be told of anything.
__attribute__((no_sanitize("thread"))) ScriptedKernel* here()
{
    return __atomic_load_n(&living, __ATOMIC_RELAXED) != 0 ? active : nullptr;
}

// What the scripted kernel itself allocates is not counted.
struct Pause {
    const bool before = here() != nullptr && std::exchange(watching, false);
    ~Pause()
    {
        if (before)
            watching = true;
    }
};

// What the logger leaves in errno, as the platform's may leave anything there.
constexpr int kNonsense = 4242;

void append(Bytes& bytes, const void* data, std::size_t size)
{
    const auto* from = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), from, from + size);
}

int usualPageSize()
{
    static const char* const chosen = std::getenv("VESK_PAGE_SIZE");
    return chosen != nullptr ? std::stoi(chosen) : 4096;
}

} // namespace

Reply failedReceive(int error)
{
    return {Bytes(), error};
}

std::string refusal(int error)
{
    nlmsgerr body = {};
    body.error    = error;
    return message(NLMSG_ERROR, 0, {digitsOf(&body, sizeof body)});
}

std::string acknowledgement()
{
    return refusal(0);
}

std::string endOfDump(int status)
{
    return message(NLMSG_DONE, NLM_F_MULTI, {digitsOf(&status, sizeof status)});
}

bool LogLine::operator==(const LogLine& other) const
{
    return level == other.level && source == other.source && format == other.format && text == other.text;
}

void watchReplies(ReplyWatcher* watcher)
{
    replyWatcher = watcher;
}

LogCapture::LogCapture()
{
    if (capture != nullptr)
        throw std::logic_error("a thread has one ScriptedKernel or LogCapture at a time");
    capture = this;
}

LogCapture::~LogCapture()
{
    capture = nullptr;
}

ScriptedKernel::ScriptedKernel() : pageSize(usualPageSize())
{
    active = this;
    __atomic_add_fetch(&living, 1, __ATOMIC_RELAXED);
}

ScriptedKernel::~ScriptedKernel()
{
    active = nullptr;
    __atomic_sub_fetch(&living, 1, __ATOMIC_RELAXED);
}

ScriptedKernel::Watch::Watch(ScriptedKernel& kernel)
{
    if (&kernel != active || watching)
        throw std::logic_error("ScriptedKernel::run on another thread, or inside itself");
    kernel.blocks.clear();
    kernel.freed.clear();
    errno    = kNonsense; // what an earlier call left there is no word of this one
    watching = true;
}

ScriptedKernel::Watch::~Watch()
{
    watching = false;
}

void ScriptedKernel::abandon()
{
    watching = false;
    sockets.clear();
    for (const auto& [block, about] : blocks)
        std::free(block);
    blocks.clear();
}

void ScriptedKernel::addInterface(const std::string& name, unsigned int index)
{
    interfaces[name] = index;
}

void ScriptedKernel::setRandom(int value)
{
    randomNumber = value;
}

void ScriptedKernel::setPageSize(int bytes)
{
    pageSize = bytes;
}

void ScriptedKernel::answer(std::vector<Reply> replies)
{
    scripts.push_back({false, std::move(replies)});
}

void ScriptedKernel::answerAsUsual()
{
    scripts.push_back({true, {}});
}

void ScriptedKernel::answerEach(const std::vector<std::vector<Reply>>& all)
{
    for (const std::vector<Reply>& one : all)
        one.empty() ? answerAsUsual() : answer(one);
}

void ScriptedKernel::fail(Call call, int error, int nth)
{
    failures[{call, nth}] = error;
}

void ScriptedKernel::miscountSends(int by)
{
    miscount = by;
}

void ScriptedKernel::numberSockets(int from)
{
    nextSocket = from;
}

int ScriptedKernel::count(Call call) const
{
    const auto found = calls.find(call);
    return found == calls.end() ? 0 : found->second;
}

std::size_t ScriptedKernel::unreadReplies() const
{
    std::size_t unread = lost;
    for (const auto& [descriptor, socket] : sockets)
        unread += socket.replies.size();
    for (const Script& script : scripts)
        unread += script.replies.size();
    return unread;
}

bool ScriptedKernel::fails(Call call)
{
    const auto failure = failures.find({call, ++calls[call]});
    if (failure == failures.end())
        return false;
    errno = failure->second;
    return true;
}

std::vector<Reply> ScriptedKernel::repliesTo(const Request& request)
{
    const Script script = scripts.empty() ? Script{true, {}} : std::move(scripts.front());
    if (!scripts.empty())
        scripts.pop_front();
    if (!script.asUsual)
        return script.replies;

    nlmsghdr header = {};
    std::copy_n(request.datagram.begin(), std::min(sizeof header, request.datagram.size()),
                reinterpret_cast<std::uint8_t*>(&header));
    if (header.nlmsg_len > request.datagram.size())
        return {}; // kernels ignore a request that is shorter than it says
    if ((header.nlmsg_flags & NLM_F_ACK) != 0)
        return {acknowledgement()};
    if ((header.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP)
        return {endOfDump()};
    return {};
}

struct ScriptedKernel::Hooks {
    static int socket(int type, int protocol)
    {
        if (active->fails(Call::Socket))
            return -1;
        Request& opened   = active->sockets[active->nextSocket].asOpened;
        opened.socketType = type;
        opened.protocol   = protocol;
        return active->nextSocket++;
    }

    // A descriptor that is, or would be, one of ours. What is not open is complained about.
    static bool owns(int descriptor)
    {
        if (here() == nullptr)
            return false;
        if (active->sockets.contains(descriptor))
            return true;
        if (descriptor < kFirstSocket)
            return false;
        complain("a socket is used that is not open");
        return false; // the system says EBADF
    }

    static void complain(const char* what) { active->wrong.emplace_back(what); }

    static int setsockopt(int descriptor, int level, int name, const void* value, socklen_t size)
    {
        if (active->fails(Call::SetSockOpt))
            return -1;
        if (size != sizeof(int))
            complain("a socket option is no int");
        int number = 0;
        std::memcpy(&number, value, std::min<std::size_t>(size, sizeof number));
        active->sockets[descriptor].asOpened.options.push_back({level, name, number});
        return 0;
    }

    static int bind(int descriptor, const sockaddr* address, socklen_t size)
    {
        if (active->fails(Call::Bind))
            return -1;
        if (size != sizeof(sockaddr_nl))
            complain("a socket is bound to half an address");
        sockaddr_nl& bound = active->sockets[descriptor].asOpened.address;
        std::memcpy(&bound, address, std::min<std::size_t>(size, sizeof bound));
        return 0;
    }

    static ssize_t sendmsg(int descriptor, const msghdr* given, int flags)
    {
        if (active->fails(Call::SendMsg))
            return -1;
        if (flags != 0 || given->msg_name != nullptr || given->msg_controllen != 0)
            complain("a request is sent with flags, an address or control data");
        Socket& socket  = active->sockets[descriptor];
        Request request = socket.asOpened;
        for (std::size_t i = 0; i < given->msg_iovlen; ++i) {
            request.scatter.push_back(given->msg_iov[i].iov_len);
            append(request.datagram, given->msg_iov[i].iov_base, given->msg_iov[i].iov_len);
        }
        for (Reply& next : active->repliesTo(request))
            socket.replies.push_back(std::move(next));
        active->sent.push_back(std::move(request));
        return static_cast<ssize_t>(active->sent.back().datagram.size()) + active->miscount;
    }

    static ssize_t recvfrom(int descriptor, void* buffer, std::size_t size, int flags, const sockaddr* address)
    {
        if (active->fails(Call::RecvFrom))
            return -1;
        if (flags != 0 || address != nullptr)
            complain("a reply is received with flags or an address");
        auto* const bytes = static_cast<std::uint8_t*>(buffer);
        active->buffers.emplace_back(bytes, bytes + size);
        std::deque<Reply>& replies = active->sockets[descriptor].replies;
        if (replies.empty()) {
            complain("a receive found no reply");
            errno = ENODATA;
            return -1;
        }
        const Reply next = std::move(replies.front());
        replies.pop_front();
        if (next.error != 0) {
            errno = next.error;
            return -1;
        }
        const std::size_t copied = std::min(size, next.datagram.size());
        std::copy_n(next.datagram.begin(), copied, bytes);
        return static_cast<ssize_t>(copied);
    }

    static int close(int descriptor)
    {
        active->lost += active->sockets[descriptor].replies.size();
        active->sockets.erase(descriptor);
        return active->fails(Call::Close) ? -1 : 0;
    }

    static unsigned int nameToIndex(const char* name)
    {
        if (active->fails(Call::NameToIndex))
            return 0;
        const auto found = active->interfaces.find(name);
        errno            = ENODEV;
        return found == active->interfaces.end() ? 0 : found->second;
    }

    static char* indexToName(unsigned int index, char* name)
    {
        if (active->fails(Call::IndexToName))
            return nullptr;
        for (const auto& [known, itsIndex] : active->interfaces)
            if (itsIndex == index)
                return std::snprintf(name, IF_NAMESIZE, "%s", known.c_str()) >= 0 ? name : nullptr;
        errno = ENXIO;
        return nullptr;
    }

    static int random() { return active->randomNumber; }

    static int pageSize() { return active->pageSize; }

    static void* allocate(std::size_t size, bool array, Call form)
    {
        const Pause pause;
        void* block = active->fails(form) ? nullptr : std::malloc(size);
        if (block != nullptr) {
            std::memset(block, 0xee, size); // so that bytes which nobody wrote show
            active->blocks[block] = {size, array};
        }
        return block;
    }

    static void release(void* block, bool array)
    {
        const Pause pause;
        const auto found = active->blocks.find(block);
        if (found == active->blocks.end())
            return;
        if (found->second.array != array)
            complain("a block is released by the other form of delete");
        const auto* bytes = static_cast<const std::uint8_t*>(block);
        active->freed.emplace_back(bytes, bytes + found->second.size);
        active->blocks.erase(found);
    }
};

} // namespace Vesk::Testing

// The calls whose place is taken. A system call leaves no key in registers, so what copies one here does not, either.

using namespace Vesk;
using namespace Vesk::Testing;
using Hooks = ScriptedKernel::Hooks;

template <typename Function>
static Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Each is noexcept where the C library declares it so, as a definition must be: glibc does, of calls that never wait;
// bionic does not.
extern "C" {

int socket(int domain, int type, int protocol) noexcept(noexcept(socket(domain, type, protocol)))
{
    const Pause pause;
    if (here() == nullptr || domain != AF_NETLINK)
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    return Hooks::socket(type, protocol);
}

int setsockopt(int descriptor, int level, int name, const void* value,
               socklen_t size) noexcept(noexcept(setsockopt(descriptor, level, name, value, size)))
{
    const Pause pause;
    if (!Hooks::owns(descriptor))
        return static_cast<int>(syscall(SYS_setsockopt, descriptor, level, name, value, size));
    return Hooks::setsockopt(descriptor, level, name, value, size);
}

int bind(int descriptor, const sockaddr* address, socklen_t size) noexcept(noexcept(bind(descriptor, address, size)))
{
    const Pause pause;
    if (!Hooks::owns(descriptor))
        return static_cast<int>(syscall(SYS_bind, descriptor, address, size));
    return Hooks::bind(descriptor, address, size);
}

ssize_t sendmsg(int descriptor, const msghdr* given, int flags)
{
    const Pause pause;
    if (!Hooks::owns(descriptor))
        return syscall(SYS_sendmsg, descriptor, given, flags);
    const ssize_t sent = Hooks::sendmsg(descriptor, given, flags);
    wipeRegisters();
    return sent;
}

ssize_t recvfrom(int descriptor, void* buffer, std::size_t size, int flags, sockaddr* address, socklen_t* length)
{
    const Pause pause;
    if (!Hooks::owns(descriptor)) {
        const ssize_t received = syscall(SYS_recvfrom, descriptor, buffer, size, flags, address, length);
        if (received > 0 && replyWatcher != nullptr)
            replyWatcher(descriptor, buffer, std::min(size, static_cast<std::size_t>(received)));
        return received;
    }
    const ssize_t received = Hooks::recvfrom(descriptor, buffer, size, flags, address);
    wipeRegisters();
    return received;
}

// What a fortified build calls when it cannot know that the buffer has room for `size`.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-*): the name is the C library's
ssize_t __recvfrom_chk(int descriptor, void* buffer, std::size_t size, std::size_t room, int flags, sockaddr* address,
                       socklen_t* length)
{
    if (size > room)
        std::abort();
    return recvfrom(descriptor, buffer, size, flags, address, length);
}

int close(int descriptor)
{
    const Pause pause;
    if (!Hooks::owns(descriptor)) {
        if (replyWatcher != nullptr)
            replyWatcher(descriptor, nullptr, 0);
        return static_cast<int>(syscall(SYS_close, descriptor));
    }
    return Hooks::close(descriptor);
}

unsigned int if_nametoindex(const char* name) noexcept(noexcept(if_nametoindex(name)))
{
    const Pause pause;
    return here() != nullptr ? Hooks::nameToIndex(name) : next<unsigned int(const char*)>("if_nametoindex")(name);
}

char* if_indextoname(unsigned int index, char* name) noexcept(noexcept(if_indextoname(index, name)))
{
    const Pause pause;
    return here() != nullptr ? Hooks::indexToName(index, name)
                             : next<char*(unsigned int, char*)>("if_indextoname")(index, name);
}

int rand() noexcept(noexcept(rand()))
{
    return here() != nullptr ? Hooks::random() : next<int()>("rand")();
}

__attribute__((no_sanitize("thread"))) int getpagesize() noexcept(noexcept(getpagesize()))
{
    return here() != nullptr ? Hooks::pageSize() : static_cast<int>(sysconf(_SC_PAGESIZE));
}

} // extern "C"

LogMgr& LogMgr::getInstance()
{
    static LogMgr instance;
    errno = kNonsense;
    return instance;
}

void LogMgr::doLog(log_level level, const char* file, unsigned int line, const char* format, ...)
{
    const Pause pause;
    static const int lowest = lowestLogLevel();
    errno                   = kNonsense;
    if (capture != nullptr ? capture->drop : level < lowest)
        return;
    char text[2048];
    std::va_list arguments;
    va_start(arguments, format);
    formatLogLine(text, sizeof text, format, arguments);
    va_end(arguments);
    if (capture != nullptr)
        capture->lines.push_back({level, file, format, text, line});
    else
        std::fprintf(stderr, "%d %s:%u %s\n", level, file, line, text);
    errno = kNonsense;
}

// Not inlined, or g++ sees malloc() behind new and free() behind delete, and warns of both.
__attribute__((noinline)) static void* allocate(std::size_t size, bool array, Call form = Call::Allocate)
{
    return watching ? Hooks::allocate(size, array, form) : std::malloc(size);
}

__attribute__((noinline)) static void* allocateOrThrow(std::size_t size, bool array)
{
    void* block = allocate(size, array, Call::AllocateOrThrow);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

__attribute__((noinline)) static void release(void* block, bool array) noexcept
{
    if (watching)
        Hooks::release(block, array);
    std::free(block);
}

// clang-format off
void* operator new(std::size_t size) { return allocateOrThrow(size, false); }
void* operator new[](std::size_t size) { return allocateOrThrow(size, true); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, false); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, true); }
void operator delete(void* block) noexcept { release(block, false); }
void operator delete[](void* block) noexcept { release(block, true); }
void operator delete(void* block, std::size_t) noexcept { release(block, false); }
void operator delete[](void* block, std::size_t) noexcept { release(block, true); }
// clang-format on
