// Dumps of what is in the kernel, a message at a time.
#ifndef VESKCTL_DUMP_H
#define VESKCTL_DUMP_H

#include <vesk/netlink.h>

#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

#include <linux/rtnetlink.h>

class Attributes {
public:
    Attributes(nlmsghdr* message, std::size_t payload)
    {
        const std::size_t start = NLMSG_SPACE(payload);
        if (message->nlmsg_len > start)
            Vesk::NetlinkMessage::parseAttributes(
                reinterpret_cast<nlattr*>(reinterpret_cast<unsigned char*>(message) + start), all,
                static_cast<unsigned int>(message->nlmsg_len - start), static_cast<unsigned short>(NLA_TYPE_MASK));
    }

    [[nodiscard]] const unsigned char* value(int type) const
    {
        const auto found = all.find(type);
        return found == all.end() ? nullptr : reinterpret_cast<const unsigned char*>(found->second) + NLA_HDRLEN;
    }
    [[nodiscard]] std::size_t size(int type) const
    {
        const auto found = all.find(type);
        return found == all.end() ? 0 : found->second->nla_len - static_cast<std::size_t>(NLA_HDRLEN);
    }
    // Null where the attribute is missing or shorter. Attributes lie at multiples of 4, and no value is read by eights.
    template <typename Value>
    [[nodiscard]] const Value* as(int type) const
    {
        static_assert(alignof(Value) <= NLA_ALIGNTO);
        return size(type) < sizeof(Value) ? nullptr : reinterpret_cast<const Value*>(value(type));
    }
    [[nodiscard]] std::optional<unsigned int> number(int type) const
    {
        const auto* const found = as<unsigned int>(type);
        return found != nullptr ? std::optional(*found) : std::nullopt;
    }
    [[nodiscard]] std::string text(int type) const
    {
        const auto* const first = reinterpret_cast<const char*>(value(type));
        return {first, strnlen(first, size(type))};
    }
    [[nodiscard]] bool has(int type) const { return all.contains(type); }

private:
    std::unordered_map<int, nlattr*> all;
};

// A message of the type that is asked for.
template <typename Payload>
using Show = std::function<void(const Payload&, const Attributes&)>;

template <typename Payload>
struct Shown {
    unsigned short type;
    const Show<Payload>& show;

    bool take(nlmsghdr* message) const
    {
        if (message->nlmsg_type != type || message->nlmsg_len < NLMSG_LENGTH(sizeof(Payload)))
            return false;
        Payload payload;
        std::memcpy(&payload, NLMSG_DATA(message), sizeof payload);
        show(payload, Attributes(message, sizeof payload));
        return true;
    }
};

template <typename Payload>
int dump(int protocol, unsigned short request, unsigned short type, Payload* about, const Show<Payload>& show)
{
    Shown<Payload> shown = {type, show};
    Vesk::NetlinkMessage msg;
    msg.setNLMsgHeader(protocol, request, NLM_F_REQUEST | NLM_F_DUMP);
    if (about != nullptr)
        msg.addMsgPayload(sizeof *about, about);
    return msg.messageDump(
        [](nlmsghdr* message, void* context) { static_cast<Shown<Payload>*>(context)->take(message); }, &shown);
}

#endif
