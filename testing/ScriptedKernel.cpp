#include "ScriptedKernel.h"

#include <FormatLogLine.h>

#include <algorithm>
#include <cctype>
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

thread_local ScriptedKernel* active = nullptr;
thread_local LogCapture* capture    = nullptr;
thread_local bool watching          = false; // allocations are those of the code under test

// What the scripted kernel itself allocates is not counted.
struct Pause {
    const bool before = std::exchange(watching, false);
    ~Pause() { watching = before; }
};

void append(Bytes& bytes, const void* data, std::size_t size)
{
    const auto* from = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), from, from + size);
}

Bytes errorMessage(int error)
{
    nlmsgerr body = {};
    body.error    = error;
    Bytes bytes;
    append(bytes, &body, sizeof body);
    return message(NLMSG_ERROR, 0, bytes);
}

} // namespace

Bytes hex(std::string_view digits)
{
    Bytes bytes;
    std::string pair;
    for (const char digit : digits) {
        if (std::isspace(static_cast<unsigned char>(digit)) != 0)
            continue;
        if (std::isxdigit(static_cast<unsigned char>(digit)) == 0)
            throw std::invalid_argument("no hexadecimal digit in \"" + std::string(digits) + '"');
        pair += digit;
        if (pair.size() == 2) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(pair, nullptr, 16)));
            pair.clear();
        }
    }
    if (!pair.empty())
        throw std::invalid_argument("half a byte in \"" + std::string(digits) + '"');
    return bytes;
}

Bytes message(std::uint16_t type, std::uint16_t flags, const Bytes& body)
{
    nlmsghdr header    = {};
    header.nlmsg_len   = static_cast<__u32>(NLMSG_HDRLEN + body.size());
    header.nlmsg_type  = type;
    header.nlmsg_flags = flags;

    Bytes bytes;
    append(bytes, &header, sizeof header);
    append(bytes, body.data(), body.size());
    bytes.resize(NLMSG_ALIGN(bytes.size()));
    return bytes;
}

Bytes operator+(Bytes first, const Bytes& second)
{
    append(first, second.data(), second.size());
    return first;
}

Reply reply(Bytes datagram)
{
    return {std::move(datagram), 0};
}

Reply failedReceive(int error)
{
    return {{}, error};
}

Reply refusal(int error)
{
    return reply(errorMessage(error));
}

Reply acknowledgement()
{
    return refusal(0);
}

Reply endOfDump(int status)
{
    Bytes body;
    append(body, &status, sizeof status);
    return reply(message(NLMSG_DONE, NLM_F_MULTI, body));
}

bool LogLine::operator==(const LogLine& other) const
{
    return level == other.level && source == other.source && format == other.format && text == other.text;
}

LogCapture::LogCapture()
{
    if (capture != nullptr)
        throw std::logic_error("this thread's log is being captured already");
    capture = this;
}

LogCapture::~LogCapture()
{
    capture = nullptr;
}

ScriptedKernel::ScriptedKernel()
{
    if (active != nullptr)
        throw std::logic_error("this thread has a ScriptedKernel already");
    active = this;
}

ScriptedKernel::~ScriptedKernel()
{
    active = nullptr;
}

ScriptedKernel::Watch::Watch(ScriptedKernel& kernel)
{
    kernel.blocks.clear();
    kernel.freed.clear();
    watching = true;
}

ScriptedKernel::Watch::~Watch()
{
    watching = false;
}

void ScriptedKernel::addInterface(const std::string& name, unsigned int index)
{
    interfaces[name] = index;
}

void ScriptedKernel::setRandom(int value)
{
    randomNumber = value;
}

void ScriptedKernel::answer(std::vector<Reply> replies)
{
    scripts.push_back({false, std::move(replies)});
}

void ScriptedKernel::answerAsUsual()
{
    scripts.push_back({true, {}});
}

void ScriptedKernel::fail(Call call, int error, int nth)
{
    failures[{call, nth}] = error;
}

void ScriptedKernel::sendShort()
{
    sendsShort = true;
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

    static bool owns(int descriptor) { return active != nullptr && active->sockets.count(descriptor) != 0; }

    static int setsockopt(int descriptor, int level, int name, const void* value, socklen_t size)
    {
        if (active->fails(Call::SetSockOpt))
            return -1;
        int number = 0;
        std::memcpy(&number, value, std::min<std::size_t>(size, sizeof number));
        active->sockets[descriptor].asOpened.options.push_back({level, name, number});
        return 0;
    }

    static int bind(int descriptor, const sockaddr* address, socklen_t size)
    {
        if (active->fails(Call::Bind))
            return -1;
        sockaddr_nl& bound = active->sockets[descriptor].asOpened.address;
        std::memcpy(&bound, address, std::min<std::size_t>(size, sizeof bound));
        return 0;
    }

    static ssize_t sendmsg(int descriptor, const msghdr* given)
    {
        if (active->fails(Call::SendMsg))
            return -1;
        Socket& socket  = active->sockets[descriptor];
        Request request = socket.asOpened;
        for (std::size_t i = 0; i < given->msg_iovlen; ++i) {
            request.scatter.push_back(given->msg_iov[i].iov_len);
            append(request.datagram, given->msg_iov[i].iov_base, given->msg_iov[i].iov_len);
        }
        for (Reply& next : active->repliesTo(request))
            socket.replies.push_back(std::move(next));
        active->sent.push_back(std::move(request));
        return static_cast<ssize_t>(active->sent.back().datagram.size()) - (active->sendsShort ? 1 : 0);
    }

    static ssize_t recvfrom(int descriptor, void* buffer, std::size_t size)
    {
        if (active->fails(Call::RecvFrom))
            return -1;
        std::deque<Reply>& replies = active->sockets[descriptor].replies;
        if (replies.empty()) {
            active->receivedPastScript = true;
            errno                      = ENODATA;
            return -1;
        }
        const Reply next = std::move(replies.front());
        replies.pop_front();
        if (next.error != 0) {
            errno = next.error;
            return -1;
        }
        const std::size_t copied = std::min(size, next.datagram.size());
        std::copy_n(next.datagram.begin(), copied, static_cast<std::uint8_t*>(buffer));
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
                return std::strncpy(name, known.c_str(), IF_NAMESIZE);
        errno = ENXIO;
        return nullptr;
    }

    static int random() { return active->randomNumber; }

    static void* allocate(std::size_t size)
    {
        const Pause pause;
        void* block = active->fails(Call::Allocate) ? nullptr : std::malloc(size);
        if (block != nullptr) {
            std::memset(block, 0xee, size); // so that bytes which nobody wrote show
            active->blocks[block] = size;
        }
        return block;
    }

    static void release(void* block)
    {
        const Pause pause;
        const auto found = active->blocks.find(block);
        if (found == active->blocks.end())
            return;
        const auto* bytes = static_cast<const std::uint8_t*>(block);
        active->freed.emplace_back(bytes, bytes + found->second);
        active->blocks.erase(found);
    }
};

} // namespace Vesk::Testing

// The calls whose place is taken

using namespace Vesk::Testing;
using Hooks = ScriptedKernel::Hooks;

template <typename Function>
static Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    const Pause pause;
    if (active == nullptr || domain != AF_NETLINK)
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    return Hooks::socket(type, protocol);
}

int setsockopt(int descriptor, int level, int name, const void* value, socklen_t size) noexcept
{
    const Pause pause;
    if (!Hooks::owns(descriptor))
        return static_cast<int>(syscall(SYS_setsockopt, descriptor, level, name, value, size));
    return Hooks::setsockopt(descriptor, level, name, value, size);
}

int bind(int descriptor, const sockaddr* address, socklen_t size) noexcept
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
    return Hooks::sendmsg(descriptor, given);
}

ssize_t recvfrom(int descriptor, void* buffer, std::size_t size, int flags, sockaddr* address, socklen_t* length)
{
    const Pause pause;
    if (!Hooks::owns(descriptor))
        return syscall(SYS_recvfrom, descriptor, buffer, size, flags, address, length);
    return Hooks::recvfrom(descriptor, buffer, size);
}

int close(int descriptor)
{
    const Pause pause;
    if (!Hooks::owns(descriptor))
        return static_cast<int>(syscall(SYS_close, descriptor));
    return Hooks::close(descriptor);
}

unsigned int if_nametoindex(const char* name) noexcept
{
    const Pause pause;
    return active != nullptr ? Hooks::nameToIndex(name) : next<unsigned int(const char*)>("if_nametoindex")(name);
}

char* if_indextoname(unsigned int index, char* name) noexcept
{
    const Pause pause;
    return active != nullptr ? Hooks::indexToName(index, name)
                             : next<char*(unsigned int, char*)>("if_indextoname")(index, name);
}

int rand() noexcept
{
    return active != nullptr ? Hooks::random() : next<int()>("rand")();
}

} // extern "C"

LogMgr& LogMgr::getInstance()
{
    static LogMgr instance;
    return instance;
}

void LogMgr::doLog(log_level level, const char* file, unsigned int line, const char* format, ...)
{
    const Pause pause;
    char text[2048];
    std::va_list arguments;
    va_start(arguments, format);
    formatLogLine(text, sizeof text, format, arguments);
    va_end(arguments);
    if (capture != nullptr)
        capture->lines.push_back({level, file, format, text, line});
    else
        std::fprintf(stderr, "%d %s:%u %s\n", level, file, line, text);
}

static void* allocate(std::size_t size)
{
    return watching ? Hooks::allocate(size) : std::malloc(size);
}

static void* allocateOrThrow(std::size_t size)
{
    void* block = allocate(size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

static void release(void* block) noexcept
{
    if (watching)
        Hooks::release(block);
    std::free(block);
}

// clang-format off
void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t) noexcept { release(block); }
// clang-format on
