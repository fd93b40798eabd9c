#include "Columns.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

// The floor

void prebuild(Ask& ask)
{
    std::vector<Bytes>& blocks = ask.blocks;
    blocks                     = {{}, ask.payload};
    for (const auto& [type, value] : ask.attributes) {
        blocks.push_back(bytesOf(nlattr{static_cast<__u16>(NLA_HDRLEN + value.size()), static_cast<__u16>(type)}));
        blocks.back().insert(blocks.back().end(), value.begin(), value.end());
    }
    nlmsghdr header    = {};
    header.nlmsg_len   = sizeof header;
    header.nlmsg_type  = ask.type;
    header.nlmsg_flags = ask.flags;
    for (Bytes& block : blocks) {
        block.resize(NLMSG_ALIGN(block.size()));
        header.nlmsg_len += static_cast<__u32>(block.size());
    }
    blocks[0] = bytesOf(header);
    for (Bytes& block : blocks)
        ask.gathering.push_back({block.data(), block.size()});
}

void viaFloor(const Ask& ask)
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, ask.protocol);
    const int on = 1;
    setsockopt(fd, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
    sockaddr_nl address = {};
    address.nl_family   = AF_NETLINK;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    msghdr request     = {};
    request.msg_iov    = const_cast<iovec*>(ask.gathering.data());
    request.msg_iovlen = ask.gathering.size();
    if (sendmsg(fd, &request, 0) < 0)
        fail("sendmsg");
    alignas(nlmsghdr) char buffer[4096];
    for (bool done = false; !done;) {
        const ssize_t size = recvfrom(fd, buffer, sizeof buffer, 0, nullptr, nullptr);
        if (size < static_cast<ssize_t>(NLMSG_HDRLEN))
            fail("recvfrom");
        auto left = static_cast<unsigned int>(size);
        for (auto* message = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(message, left);
             message       = NLMSG_NEXT(message, left)) {
            if (message->nlmsg_type == NLMSG_ERROR) {
                if (static_cast<nlmsgerr*>(NLMSG_DATA(message))->error != 0)
                    fail("refused");
                done = true;
            } else if (message->nlmsg_type == NLMSG_DONE) {
                done = true;
            } else {
                Table table    = {};
                auto* at       = reinterpret_cast<char*>(message) + NLMSG_HDRLEN + ask.replyPayload;
                const auto end = reinterpret_cast<char*>(message) + message->nlmsg_len;
                while (at + NLA_HDRLEN <= end) {
                    auto* attribute = reinterpret_cast<nlattr*>(at);
                    if (attribute->nla_type <= kMaxType)
                        table[attribute->nla_type] = attribute;
                    at += NLA_ALIGN(attribute->nla_len);
                }
                ask.consume(message, table);
                done = (message->nlmsg_flags & NLM_F_MULTI) == 0;
            }
        }
    }
    close(fd);
}

// libmnl

static int keepAttribute(const nlattr* attribute, void* table)
{
    if (mnl_attr_type_valid(attribute, kMaxType) > 0)
        (*static_cast<Table*>(table))[mnl_attr_get_type(attribute)] = attribute;
    return MNL_CB_OK;
}

static int showMessage(const nlmsghdr* message, void* context)
{
    const auto& ask = *static_cast<const Ask*>(context);
    Table table     = {};
    mnl_attr_parse(message, static_cast<unsigned int>(ask.replyPayload), keepAttribute, &table);
    ask.consume(message, table);
    return (message->nlmsg_flags & NLM_F_MULTI) != 0 ? MNL_CB_OK : MNL_CB_STOP;
}

static mnl_socket* openMnl(int protocol)
{
    mnl_socket* socket = mnl_socket_open2(protocol, SOCK_CLOEXEC);
    if (socket == nullptr || mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) < 0)
        fail("libmnl socket");
    return socket;
}

static void exchangeMnl(mnl_socket* socket, const Ask& ask)
{
    char buffer[8192]; // what the library advises
    nlmsghdr* header    = mnl_nlmsg_put_header(buffer);
    header->nlmsg_type  = ask.type;
    header->nlmsg_flags = ask.flags;
    std::memcpy(mnl_nlmsg_put_extra_header(header, ask.payload.size()), ask.payload.data(), ask.payload.size());
    for (const auto& [type, value] : ask.attributes)
        mnl_attr_put(header, static_cast<std::uint16_t>(type), value.size(), value.data());
    if (mnl_socket_sendto(socket, header, header->nlmsg_len) < 0)
        fail("libmnl send");
    for (int verdict = MNL_CB_OK; verdict > MNL_CB_STOP;) {
        const ssize_t size = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
        verdict = mnl_cb_run(buffer, static_cast<std::size_t>(size), 0, 0, ask.consume ? showMessage : nullptr,
                             const_cast<Ask*>(&ask));
        if (verdict < 0)
            fail("libmnl: refused");
    }
}

void viaMnl(const Ask& ask)
{
    mnl_socket* socket = openMnl(ask.protocol);
    exchangeMnl(socket, ask);
    mnl_socket_close(socket);
}

void viaKeptMnl(const Ask& ask)
{
    static mnl_socket* sockets[NETLINK_GENERIC + 1];
    if (sockets[ask.protocol] == nullptr)
        sockets[ask.protocol] = openMnl(ask.protocol);
    exchangeMnl(sockets[ask.protocol], ask);
}

// libnl

static int showMessageNl(nl_msg* message, void* context)
{
    const auto& ask = *static_cast<const Ask*>(context);
    Table table;
    nlmsg_parse(nlmsg_hdr(message), static_cast<int>(ask.replyPayload), const_cast<nlattr**>(table.data()), kMaxType,
                nullptr);
    ask.consume(nlmsg_hdr(message), table);
    return NL_OK;
}

static nl_sock* openNl(int protocol)
{
    nl_sock* socket = nl_socket_alloc();
    if (socket == nullptr || nl_connect(socket, protocol) < 0)
        fail("libnl socket");
    return socket;
}

static void exchangeNl(nl_sock* socket, const Ask& ask)
{
    nl_msg* message = nlmsg_alloc_simple(ask.type, ask.flags);
    if (message == nullptr)
        fail("libnl message");
    nlmsg_append(message, const_cast<unsigned char*>(ask.payload.data()), ask.payload.size(), NLMSG_ALIGNTO);
    for (const auto& [type, value] : ask.attributes)
        nla_put(message, type, static_cast<int>(value.size()), value.data());
    int result = 0;
    if (ask.consume == nullptr) {
        nl_socket_enable_auto_ack(socket);
        result = nl_send_sync(socket, message); // frees the message
    } else {
        nl_socket_disable_auto_ack(socket);
        nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, showMessageNl, const_cast<Ask*>(&ask));
        result = nl_send_auto(socket, message);
        if (result >= 0)
            result = nl_recvmsgs_default(socket);
        nlmsg_free(message);
    }
    if (result < 0)
        fail(std::string("libnl: ") + nl_geterror(result));
}

void viaNl(const Ask& ask)
{
    nl_sock* socket = openNl(ask.protocol);
    exchangeNl(socket, ask);
    nl_socket_free(socket);
}

void viaKeptNl(const Ask& ask)
{
    static nl_sock* sockets[NETLINK_GENERIC + 1];
    if (sockets[ask.protocol] == nullptr)
        sockets[ask.protocol] = openNl(ask.protocol);
    exchangeNl(sockets[ask.protocol], ask);
}

// A program

void viaProcess(const std::vector<std::string>& command)
{
    std::vector<char*> arguments;
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    int status  = posix_spawnp(&child, arguments[0], &quiet, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&quiet);
    if (status != 0 || waitpid(child, &status, 0) != child || status != 0)
        fail(command[0] + ": refused");
}

} // namespace Bench
