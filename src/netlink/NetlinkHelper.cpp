// A request is sent as one datagram, gathered from its blocks in place:
//
//     header          | nlmsg_len (4) | nlmsg_type (2) | nlmsg_flags (2) | nlmsg_seq = 0 (4) | nlmsg_pid = 0 (4) |
//     payload         | fixed structure, padded to a multiple of 4 |
//     per attribute   | nla_len (2) | nla_type (2) | value, padded to a multiple of 4 |
//     ... a nest      | nla_len (2) | nla_type (2) |, its children are the attributes that follow
//
// Attributes are never moved once added, so the length of a nest can be written after its children.

#include <vesk/netlink.h>

#include "Checked.h"
#include "Errno.h"
#include "Log.h"
#include "Message.h"
#include "WholeRequest.h"
#include "Wipe.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include <linux/genetlink.h>
#include <linux/xfrm.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Vesk {

namespace {

constexpr char kLogSource[] = "src/netlink/NetlinkHelper";

constexpr std::size_t kUsualAttributes = 8; // no request of this library has more, so the list never grows
constexpr std::size_t kNoSuchBlock     = SIZE_MAX;
constexpr std::size_t kReceiveCapacity = 8192;
constexpr std::size_t kMinErrorSize    = kMessageSize<nlmsgerr>;
constexpr std::size_t kMinDoneSize     = kMessageSize<int>;

// A refusal: header, error, echo of the request (its header alone when capped), attributes. The walk over the
// attributes starts 12 bytes early, inside the echo, and stays so: daemons rely on which texts are found and which are
// not.
constexpr unsigned int kEchoStart        = NLMSG_HDRLEN + sizeof(int);
constexpr unsigned int kExtAckInsideEcho = 12; // kept
constexpr unsigned int kExtAckStart      = kEchoStart + NLMSG_HDRLEN - kExtAckInsideEcho;
constexpr unsigned int kExtAckMaxType    = 6;

// What errno says of a dump that succeeded.
int errnoOfDump(bool interrupted)
{
    return interrupted ? EINTR : 0;
}

// These requests may end in a key, and the walk over a refusal's attributes starts inside their echo.
bool carriesKeys(int protocol, unsigned int type)
{
    return protocol == NETLINK_XFRM && (type == XFRM_MSG_NEWSA || type == XFRM_MSG_UPDSA);
}

std::size_t blockSize(const nlattr* block)
{
    return (block->nla_type & NLA_F_NESTED) != 0 ? NLA_HDRLEN : NLA_ALIGN(std::size_t{block->nla_len});
}

// The errno of a status that the kernel reports, as it is logged; any 32 bits have one.
int positive(int status)
{
    return static_cast<int>(0U - static_cast<unsigned int>(status));
}

// The same for the caller. No kernel sends another number: EBADMSG.
int reasonOf(int status)
{
    constexpr int kLastErrno = 4095; // that the kernel reports
    return status < 0 && status >= -kLastErrno ? -status : EBADMSG;
}

// As much as kernels put into a datagram of the library's own dumps: a page, at most 8,192 bytes. With less room a dump
// is cut off.
std::size_t receiveSize()
{
    return std::min(static_cast<std::size_t>(getpagesize()), kReceiveCapacity);
}

// The messages of one reply datagram, in place.
class Reply {
public:
    Reply() { std::memset(buffer, 0, size); }
    ~Reply() { wipe(buffer, longest); } // a dump of SAs, and the echo of one that was refused, hold keys

    ssize_t receive(int socketFd)
    {
        const ssize_t received = recvfrom(socketFd, buffer, size, 0, nullptr, nullptr);
        at                     = buffer;
        unread = datagram = received > 0 ? static_cast<std::size_t>(received) : 0;
        longest           = std::max(longest, unread);
        return received;
    }

    // Null when the datagram is used up, or goes on with something that is no message.
    nlmsghdr* next()
    {
        auto* message = reinterpret_cast<nlmsghdr*>(at);
        if (unread < NLMSG_HDRLEN || message->nlmsg_len < NLMSG_HDRLEN || message->nlmsg_len > unread)
            return nullptr;

        const std::size_t step = std::min<std::size_t>(NLMSG_ALIGN(message->nlmsg_len), unread);
        at += step;
        unread -= step;
        return message;
    }

    // After next() had no more: whether the datagram was longer than a receive, which shows when it ends inside a
    // message. A cut between two messages does not show.
    [[nodiscard]] bool isCutOff() const
    {
        __u32 length = 0; // of the message that begins there, perhaps without a whole header
        if (datagram == size && unread >= sizeof length)
            std::memcpy(&length, at, sizeof length);
        return length >= NLMSG_HDRLEN;
    }

    const std::size_t size = receiveSize();

private:
    unsigned char* at    = buffer;
    std::size_t datagram = 0;
    std::size_t unread   = 0;
    std::size_t longest  = 0; // datagram so far
    alignas(nlmsghdr) unsigned char buffer[kReceiveCapacity];
};

} // namespace

NetlinkMessage::NetlinkMessage() noexcept
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
    static_assert(sizeof(void*) == 8, "for 64-bit processors alone: daemons keep a NetlinkMessage in this layout");
    static_assert(sizeof(NetlinkMessage) == 120);
    static_assert(offsetof(NetlinkMessage, protocol) == 8);
    static_assert(offsetof(NetlinkMessage, socketFd) == 12);
    static_assert(offsetof(NetlinkMessage, kernelError) == 16);
    static_assert(offsetof(NetlinkMessage, queryCb) == 24);
    static_assert(offsetof(NetlinkMessage, queryCtx) == 32);
    static_assert(offsetof(NetlinkMessage, requireResponse) == 40);
    static_assert(offsetof(NetlinkMessage, attributeMissing) == 41);
    static_assert(offsetof(NetlinkMessage, dumpCb) == 48);
    static_assert(offsetof(NetlinkMessage, dumpCtx) == 56);
    static_assert(offsetof(NetlinkMessage, header) == 64);
    static_assert(offsetof(NetlinkMessage, payload) == 80);
    static_assert(offsetof(NetlinkMessage, attrsLength) == 88);
    static_assert(offsetof(NetlinkMessage, attributes) == 96);
#pragma GCC diagnostic pop
}

NetlinkMessage::~NetlinkMessage()
{
    const KeptErrno reason; // of the exchange that failed, or of a dump
    clearMsgPayload();
    clearAttributes();
    if (socketFd >= 0)
        close(socketFd);
}

// Building

void NetlinkMessage::setNLMsgHeader(int netlinkProtocol, unsigned short type, unsigned short flags) noexcept
{
    protocol           = netlinkProtocol;
    header.nlmsg_type  = type;
    header.nlmsg_flags = flags;
}

void NetlinkMessage::addMsgPayload(int len, void* data) noexcept
{
    // (len + 3) & ~3, written so that -4 to -1 are the lengths that overflow.
    const auto aligned = addOrAbort<std::uint32_t>(static_cast<std::uint32_t>(len), NLMSG_ALIGNTO) - 1;
    const auto padded  = aligned & ~(NLMSG_ALIGNTO - 1);

    clearMsgPayload();
    if (len >= 0)
        payload = new (std::nothrow) unsigned char[padded];
    if (payload == nullptr) {
        LOG(failure, "%s(): adding payload failed");
        return;
    }

    const auto size = static_cast<std::size_t>(len);
    if (size != 0)
        std::memcpy(payload, data, size);
    std::memset(payload + size, 0, padded - size);
    payloadLength    = padded;
    header.nlmsg_len = padded;
}

void NetlinkMessage::clearMsgPayload() noexcept
{
    if (payload != nullptr)
        wipe(payload, payloadLength);
    delete[] payload;
    payload = nullptr;
}

void NetlinkMessage::addNLAttribute(int type, int len, void* data) noexcept
{
    if (len < 0)
        return;

    const auto size = static_cast<std::size_t>(len);
    const auto padded =
        static_cast<std::size_t>(addOrAbort<int>(len, NLA_HDRLEN + NLA_ALIGNTO - 1)) & ~(std::size_t{NLA_ALIGNTO} - 1);
    auto* block = new (std::nothrow) unsigned char[padded];
    if (block == nullptr) {
        LOG(failure, "%s(): adding attribute of type %d failed", type);
        attributeMissing = true;
        return;
    }

    auto* attribute     = reinterpret_cast<nlattr*>(block);
    attribute->nla_type = static_cast<__u16>(type);
    attribute->nla_len  = static_cast<__u16>(len + NLA_HDRLEN);
    if (size != 0)
        std::memcpy(block + NLA_HDRLEN, data, size);
    std::memset(block + NLA_HDRLEN + size, 0, padded - NLA_HDRLEN - size);

    if (attributes.empty())
        attributes.reserve(kUsualAttributes);
    attributes.push_back(attribute);
    attrsLength = addOrAbort<std::uint64_t>(attrsLength, padded);
}

void NetlinkMessage::addNLAttribute(int type, unsigned char value) noexcept
{
    addNLAttribute(type, sizeof value, &value);
}

void NetlinkMessage::addNLAttribute(int type, unsigned short value) noexcept
{
    addNLAttribute(type, sizeof value, &value);
}

void NetlinkMessage::addNLAttribute(int type, unsigned int value) noexcept
{
    addNLAttribute(type, sizeof value, &value);
}

void NetlinkMessage::addNLAttribute(int type, char* text) noexcept
{
    addNLAttribute(type, addOrAbort<int>(std::strlen(text), 1), text);
}

void NetlinkMessage::addNLAttribute(int type, const char* text) noexcept
{
    addNLAttribute(type, const_cast<char*>(text));
}

void NetlinkMessage::addNLAttribute(int type, std::string& text) noexcept
{
    addNLAttribute(type, addOrAbort<int>(text.size(), 1), text.data());
}

void NetlinkMessage::startNestedNLAttribute(int type, NestedAttrHandle& handle) noexcept
{
    const std::size_t index = attributes.size();
    handle.first            = attrsLength;
    addNLAttribute(type | NLA_F_NESTED, 0, nullptr);
    handle.second = attributes.size() > index ? index : kNoSuchBlock;
}

void NetlinkMessage::endNestedNLAttribute(NestedAttrHandle& handle) noexcept
{
    const auto index    = static_cast<std::size_t>(handle.second);
    const char* mistake = nullptr;
    if (index >= attributes.size())
        mistake = "no such attribute";
    else if ((attributes[index]->nla_type & NLA_F_NESTED) == 0) // its length is its own: the send would read past it
        mistake = "not a nested attribute";
    if (mistake != nullptr) {
        LOG(failure, "%s(): invalid attribute handle %zu: %s", index, mistake);
        return;
    }
    attributes[index]->nla_len = static_cast<__u16>(subOrAbort<std::uint64_t>(attrsLength, handle.first));
}

void NetlinkMessage::clearAttributes() noexcept
{
    if (attrsLength == 0)
        return; // no block is alive; after an earlier call the list still names the freed ones
    for (nlattr* attribute : attributes) {
        wipe(attribute, blockSize(attribute));
        delete[] reinterpret_cast<unsigned char*>(attribute);
    }
    attrsLength = 0;
}

// The socket

int NetlinkMessage::openSocket() noexcept
{
    if (protocol < 0)
        return FAIL_WITH(EINVAL, "%s(): NL protocol not yet set. Aborting");
    if (socketFd >= 0)
        close(socketFd);

    socketFd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (socketFd < 0)
        return FAIL("%s(): opening NL socket failed: errno=[%d, %s]", errno, strerror(errno));

    const int on = 1;
    if (setsockopt(socketFd, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on) != 0)
        LOG(notice, "%s(): EXTACK not supported");

    sockaddr_nl address = {};
    address.nl_family   = AF_NETLINK;
    if (bind(socketFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        const KeptErrno reason;
        LOG(failure, "%s(): binding NL socket failed: errno=[%d, %s]", errno, strerror(errno));
        close(socketFd);
        socketFd = -1;
        return -1;
    }
    return 0;
}

int NetlinkMessage::messageSend() noexcept
{
    const std::size_t count = 1 + (payload != nullptr ? 1 : 0) + attributes.size();
    const std::unique_ptr<iovec[]> blocks(new (std::nothrow) iovec[count]);
    if (blocks == nullptr)
        return FAIL_WITH(ENOMEM, "%s(): msg allocation failed");

    iovec* block = blocks.get();
    *block++     = {&header, sizeof header};
    if (payload != nullptr)
        *block++ = {payload, payloadLength};
    for (nlattr* attribute : attributes)
        *block++ = {attribute, blockSize(attribute)};

    const auto attrsSize = addOrAbort<std::uint32_t>(attrsLength, NLA_ALIGNTO - 1) & ~(NLA_ALIGNTO - 1U);
    header.nlmsg_len     = addOrAbort<__u32>(addOrAbort<__u32>(header.nlmsg_len, attrsSize), NLMSG_HDRLEN);

    msghdr message     = {};
    message.msg_iov    = blocks.get();
    message.msg_iovlen = count;
    const ssize_t sent = sendmsg(socketFd, &message, 0);
    if (sent < 0)
        return FAIL("%s(): sending NL message failed. errno=[%d, %s]", errno, strerror(errno));
    if (sent != static_cast<ssize_t>(header.nlmsg_len))
        return FAIL_WITH(EMSGSIZE, "%s(): sending full NL message failed: %d of %u", static_cast<int>(sent),
                         header.nlmsg_len);
    return 0;
}

int NetlinkMessage::openAndSend() noexcept
{
    if (socketFd < 0 && openSocket() != 0)
        return -1;
    return messageSend();
}

// The exchanges

int NetlinkMessage::messageTransact() noexcept
{
    if (openAndSend() != 0)
        return -1;
    if ((header.nlmsg_flags & NLM_F_ACK) == 0) {
        LOG(detail, "%s(): not requesting ACK for NL message\n");
        return 0;
    }

    Reply reply;
    if (reply.receive(socketFd) < 0)
        return FAIL("%s(): receiving NL ACK from kernel failed: errno=[%d, %s]", errno, strerror(errno));

    while (nlmsghdr* message = reply.next()) {
        if (message->nlmsg_type != NLMSG_ERROR)
            continue;
        if (message->nlmsg_len < kMinErrorSize)
            return FAIL_WITH(EBADMSG, "%s(): invalid NL error received");

        const int error = payloadOf<nlmsgerr>(message).error;
        if (error == 0)
            return YIELD(0, notice, "%s(): NL ACK received form kernel"); // sic
        LOG(failure, "%s(): kernel reports error %d", error);
        return refusedBy(message, error);
    }
    return FAIL_WITH(reply.isCutOff() ? EMSGSIZE : EBADMSG, "%s(): no NL ACK received from kernel");
}

// Logs the kernel's words for a refusal, and keeps its error in the object and in errno.
int NetlinkMessage::refusedBy(nlmsghdr* message, int error) noexcept
{
    extack(message);
    kernelError = error;
    errno       = reasonOf(error);
    return -1;
}

int transactWhole(NetlinkMessage& msg) noexcept
{
    if (msg.payload != nullptr && !msg.attributeMissing)
        return msg.messageTransact();
    errno = ENOMEM;
    return -1;
}

void NetlinkMessage::extack(nlmsghdr* msg) noexcept
{
    if ((msg->nlmsg_flags & NLM_F_ACK_TLVS) == 0) {
        LOG(notice, "%s(): No EXTACK content");
        return;
    }

    auto* const bytes  = reinterpret_cast<unsigned char*>(msg);
    auto space         = subOrAbort<unsigned int>(msg->nlmsg_len, kExtAckStart);
    unsigned int quiet = 0;
    if ((msg->nlmsg_flags & NLM_F_CAPPED) == 0) {
        nlmsghdr echo = {};
        std::memcpy(&echo, bytes + kEchoStart, std::min<std::size_t>(sizeof echo, msg->nlmsg_len - kEchoStart));
        space = subOrAbort<unsigned int>(space, subOrAbort<unsigned int>(echo.nlmsg_len, NLMSG_HDRLEN));
        quiet = carriesKeys(protocol, echo.nlmsg_type) ? kExtAckInsideEcho : 0;
    }

    auto* const start = bytes + (msg->nlmsg_len - space);
    const AttributeTable<kExtAckMaxType> found(reinterpret_cast<nlattr*>(start), space);
    nlattr* const message = found[NLMSGERR_ATTR_MSG];
    if (message == nullptr || reinterpret_cast<unsigned char*>(message) < start + quiet)
        return;

    char text[kReceiveCapacity];
    std::snprintf(text, sizeof text, "%.*s", static_cast<int>(attributeLength(message)),
                  static_cast<char*>(attributeValue(message)));
    LOG(failure, "%s(): EXTACK reports %s", text);
}

int NetlinkMessage::getKernelError() noexcept
{
    return kernelError;
}

void NetlinkMessage::setQueryCb(QueryCallback* cb, void* ctx, bool responseRequired) noexcept
{
    queryCb         = cb;
    queryCtx        = ctx;
    requireResponse = responseRequired;
}

int NetlinkMessage::messageQuery() noexcept
{
    return messageQuery(queryCb, queryCtx, requireResponse);
}

int NetlinkMessage::messageQuery(QueryCallback* cb, void* ctx, bool responseRequired) noexcept
{
    if (cb == nullptr)
        return FAIL_WITH(EINVAL, "%s(): attempting to query without valid callback. Aborting");
    if (openAndSend() != 0)
        return -1;

    Reply reply;
    if (reply.receive(socketFd) < 0)
        return FAIL("%s(): receiving query response from kernel failed: errno=[%d, %s]", errno, strerror(errno));

    while (nlmsghdr* message = reply.next()) {
        if (message->nlmsg_type == NLMSG_ERROR) {
            if (message->nlmsg_len < kMinErrorSize)
                return FAIL_WITH(EBADMSG, "%s(): invalid NL error received");
            const int error = payloadOf<nlmsgerr>(message).error;
            LOG(failure, "%s(): kernel reports error %d", error);
            return refusedBy(message, error);
        }

        const VeskNetlinkQueryReturn verdict = cb(message, ctx);
        if (verdict == NetlinkQueryDone)
            return 0;
        if (verdict == NetlinkQueryFailed)
            return FAIL_WITH(ECANCELED, "%s(): netlink query cb reports failure");
    }
    if (reply.isCutOff())
        return FAIL_WITH(EMSGSIZE, "%s(): NL reply was cut off at %zu bytes", reply.size);
    return responseRequired ? FAIL_WITH(ENOENT, "%s(): netlink query response not found") : 0;
}

void NetlinkMessage::setDumpCb(DumpCallback* cb, void* ctx) noexcept
{
    dumpCb  = cb;
    dumpCtx = ctx;
}

int NetlinkMessage::messageDump() noexcept
{
    return messageDump(dumpCb, dumpCtx);
}

int NetlinkMessage::messageDump(DumpCallback* cb, void* ctx) noexcept
{
    if (cb == nullptr)
        return FAIL_WITH(EINVAL, "%s(): attempting to dump without valid callback. Aborting");
    if (openAndSend() != 0)
        return -1;

    Reply reply;
    bool interrupted = false;
    while (reply.receive(socketFd) >= 0) {
        while (nlmsghdr* message = reply.next()) {
            const bool marked = (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            if (message->nlmsg_type == NLMSG_ERROR) {
                if (message->nlmsg_len < kMinErrorSize)
                    return FAIL_WITH(EBADMSG, "%s(): invalid NL ERR received");
                const int error = payloadOf<nlmsgerr>(message).error;
                if (error != 0) {
                    kernelError = error;
                    return FAIL_WITH(reasonOf(error), "%s(): kernel reports errno [%d, %s]", positive(error),
                                     strerror(positive(error)));
                }
            } else if (message->nlmsg_type == NLMSG_DONE) {
                if (message->nlmsg_len < kMinDoneSize)
                    return FAIL_WITH(EBADMSG, "%s(): invalid dump done message");
                const int status = payloadOf<int>(message);
                if (status < 0)
                    return FAIL_WITH(reasonOf(status), "%s(): NL dump reports errno [%d, %s]", positive(status),
                                     strerror(positive(status)));
                errno = errnoOfDump(interrupted || marked);
                return 0;
            } else if (marked) {
                interrupted = true;
                LOG(notice, "%s(): NL dump was interrupted");
            }
            cb(message, ctx);
        }
        if (reply.isCutOff())
            return FAIL_WITH(EMSGSIZE, "%s(): NL reply was cut off at %zu bytes", reply.size);
    }
    return FAIL("%s(): receiving NL dump failed. errno=[%d %s]", errno, strerror(errno));
}

void NetlinkMessage::parseAttributes(nlattr* first, std::unordered_map<int, nlattr*>& map, unsigned int len,
                                     unsigned short maxType) noexcept
{
    forEachAttribute(first, len, maxType,
                     [&map](unsigned int type, nlattr* attribute) { map[static_cast<int>(type)] = attribute; });
}

// Generic netlink families

namespace {

VeskNetlinkQueryReturn queryGENLCb(nlmsghdr* msg, void* ctx) noexcept
{
    auto* id = static_cast<int*>(ctx);
    const AttributeTable<CTRL_ATTR_OP> attributes(msg, kMessageSize<genlmsghdr>);
    nlattr* family = attributes[CTRL_ATTR_FAMILY_ID];
    if (family == nullptr || attributeLength(family) < sizeof(__u16))
        return NetlinkQueryContinue;

    __u16 value;
    std::memcpy(&value, attributeValue(family), sizeof value);
    *id = value;
    return NetlinkQueryDone;
}

} // namespace

int queryGenericNetlinkFamily(std::string& name, unsigned char version, unsigned short* id) noexcept
{
    static_assert(sizeof(genlmsghdr) == 4);
    genlmsghdr request = {};
    request.cmd        = CTRL_CMD_GETFAMILY;
    request.version    = version;

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_GENERIC, GENL_ID_CTRL, NLM_F_REQUEST);
    msg.addMsgPayload(sizeof request, &request);
    msg.addNLAttribute(CTRL_ATTR_FAMILY_NAME, name);

    int answer = -1;
    msg.setQueryCb(queryGENLCb, &answer, true);
    const int result = msg.messageQuery();
    if (result != 0) {
        LOG(failure, "%s(): Netlink query failed");
        return result;
    }
    if (answer < 0)
        return FAIL_WITH(ENOENT, "%s(): no response to GENL family ID query");

    *id = static_cast<unsigned short>(answer);
    return 0;
}

} // namespace Vesk
