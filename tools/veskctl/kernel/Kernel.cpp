#include "Kernel.h"

#include <netlink/Numbers.h>
#include <vesk/netlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include <linux/fib_rules.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>

using namespace Vesk::Messages;

const Dump kStates   = {NETLINK_XFRM, XFRM_MSG_GETSA, XFRM_MSG_NEWSA};
const Dump kPolicies = {NETLINK_XFRM, XFRM_MSG_GETPOLICY, XFRM_MSG_NEWPOLICY};
const Dump kRules    = {NETLINK_ROUTE, RTM_GETRULE, RTM_NEWRULE, AF_UNSPEC, sizeof(fib_rule_hdr), true};
const Dump kLabels   = {NETLINK_ROUTE, RTM_GETADDRLABEL, RTM_NEWADDRLABEL, AF_INET6, sizeof(ifaddrlblmsg), true};
const Dump kRoutes   = {NETLINK_ROUTE, RTM_GETROUTE, RTM_NEWROUTE, AF_UNSPEC, sizeof(rtmsg)};
const Dump kQdiscs   = {NETLINK_ROUTE, RTM_GETQDISC, RTM_NEWQDISC, AF_UNSPEC, sizeof(tcmsg)};

namespace {

constexpr int kAttempts = 4;

// Empty where there is none.
const std::string& deviceName(std::uint64_t index)
{
    static std::map<std::uint64_t, std::string> known;
    const auto [found, isNew] = known.try_emplace(index);
    char name[IF_NAMESIZE]    = {};
    if (isNew && if_indextoname(static_cast<unsigned int>(index), name) != nullptr)
        found->second = name;
    return found->second;
}

Field& addWord(Fields& fields, const char* listed, const std::string& word)
{
    Field field;
    field.kind   = Kind::Word;
    field.listed = listed;
    field.words  = {word};
    return fields.emplace_back(field);
}

// What is not in fields of its own.
void complete(const Dump& what, Fields& fields)
{
    for (Field& each : fields)
        if (each.kind == Kind::Device && !each.listed.empty() && each.number() != 0) {
            if (const std::string& name = deviceName(each.number()); !name.empty())
                each.words = {name};
            else
                each.listed += "_index";
        }
    const auto word = [&fields](const char* name) {
        const Field* const field = fieldOf(fields, name);
        return field != nullptr ? field->inWords() : "";
    };
    if (what.reply == kStates.reply &&
        (word("protocol") == "esp" || word("protocol") == "ah" || word("protocol") == "comp") &&
        std::none_of(fields.begin(), fields.end(),
                     [](const Field& each) { return each.part.starts_with("XFRMA_ALG_"); }))
        addWord(fields, "state", "larval");
    if (what.reply == kRules.reply && fieldOf(fields, "priority") == nullptr) // which is 0 then
        addWord(fields, "priority", "0").kind = Kind::Number;
    if (const Field* const table = what.reply == kRules.reply ? fieldOf(fields, "table") : nullptr)
        if (const std::string& name = deviceName(table->number() - Vesk::kFirstTable); !name.empty())
            addWord(fields, "device", name);
}

} // namespace

Fields decoded(const Dump& what, const nlmsghdr* message)
{
    Fields fields = decode(what.protocol, {reinterpret_cast<const unsigned char*>(message), message->nlmsg_len});
    complete(what, fields);
    return fields;
}

Fields mayShow(const Dump& what)
{
    Fields fields = listed(what.protocol, what.reply);
    if (what.reply == kStates.reply || what.reply == kRules.reply)
        addWord(fields, what.reply == kStates.reply ? "state" : "device", "");
    return fields;
}

int readAll(const Dump& what, const std::function<void()>& begin,
            const std::function<void(const Fields& fields, Bytes message)>& each)
{
    std::optional<std::vector<unsigned char>> before;
    std::vector<unsigned char> now;
    const auto show = [&](const nlmsghdr* message) {
        const Bytes bytes(reinterpret_cast<const unsigned char*>(message), message->nlmsg_len);
        if (message->nlmsg_type != what.reply)
            return;
        each(decoded(what, message), bytes);
        if (what.twice)
            now.insert(now.end(), bytes.begin() + NLMSG_HDRLEN, bytes.end());
    };
    std::array<unsigned char, sizeof(tcmsg)> about = {what.family};
    int result                                     = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        Vesk::NetlinkMessage msg;
        msg.setNLMsgHeader(what.protocol, what.request, Vesk::kDump);
        if (what.payload != 0)
            msg.addMsgPayload(what.payload, about.data());
        begin();
        const auto* context = &show;
        now.clear();
        errno  = 0;
        result = msg.messageDump(
            [](nlmsghdr* message, void* with) { (**static_cast<decltype(context)*>(with))(message); }, &context);
        if (result == 0 && what.twice && std::exchange(before, now) != now)
            errno = EINTR;
        if (result != 0 || errno != EINTR)
            break;
    }
    return result;
}
