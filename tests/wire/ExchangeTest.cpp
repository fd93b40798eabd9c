// The socket, the three exchanges, extended acknowledgements, attributes, and the look-up of a family.
#include "WireTest.h"

#include <map>

#include <linux/xfrm.h>

using namespace wire;
using namespace Vesk;

// Messages of replies: length, type, flags, sequence and port, body.
static const std::string kOther = "14000000 1000 0000 00000000 00000000  aabbccdd"; // an ordinary message
static const std::string kAck = "24000000 0200 0000 00000000 00000000  00000000 00000000000000000000000000000000";
static const std::string kNoEntry = "24000000 0200 0000 00000000 00000000  feffffff 00000000000000000000000000000000";
static const std::string kDone = "14000000 0300 0200 00000000 00000000  00000000";
static const std::string kDoneBusy = "14000000 0300 0200 00000000 00000000  f0ffffff"; // -EBUSY
static const std::string kShortErr = "23000000 0200 0000 00000000 00000000  00000000 000000000000000000000000000000 00";
static const std::string kTooShort = "0f000000 1000 0000 00000000 00000000";
static const std::string kTooLong = "15000000 1000 0000 00000000 00000000  aabbccdd";
static const std::string kOdd = "11000000 1000 0000 00000000 00000000  aa"; // padded by "000000", or the end

// The result of an exchange; the kernel's error where there was one.
static int outcome(NetlinkMessage& msg, int result) { return msg.getKernelError() != 0 ? msg.getKernelError() : result; }

static Operation transact(int protocol = NETLINK_ROUTE)
{
    return [protocol] {
        NetlinkMessage msg;
        msg.setNLMsgHeader(protocol, 16, NLM_F_REQUEST | NLM_F_ACK);
        return outcome(msg, msg.messageTransact());
    };
}

// Its callback must see so many messages, and answers each with this verdict.
static Operation query(VeskNetlinkQueryReturn verdict, bool responseRequired, int messages)
{
    return [=] {
        NetlinkMessage msg;
        std::pair context{0, verdict};
        msg.setNLMsgHeader(NETLINK_ROUTE, 26, NLM_F_REQUEST);
        const auto see = [](nlmsghdr*, void* given) {
            auto& [seen, says] = *static_cast<std::pair<int, VeskNetlinkQueryReturn>*>(given);
            ++seen;
            return says;
        };
        msg.setQueryCb(see, &context, responseRequired);
        const int result = msg.messageQuery();
        EXPECT_EQ(context.first, messages);
        return outcome(msg, result);
    };
}

static Operation dump(int messages)
{
    return [=] {
        NetlinkMessage msg;
        int seen = 0;
        msg.setNLMsgHeader(NETLINK_ROUTE, 26, NLM_F_REQUEST | NLM_F_DUMP);
        msg.setDumpCb([](nlmsghdr*, void* context) { ++*static_cast<int*>(context); }, &seen);
        const int result = msg.messageDump();
        EXPECT_EQ(seen, messages);
        return outcome(msg, result);
    };
}

TEST(Exchange, NeedsASocket)
{
    const auto fails = [](const char* what, Call call, int error, const LogLine& line) {
        for (const Operation& exchange : {transact(), query(NetlinkQueryDone, true, 0), dump(0)})
            check(what, exchange, -1, kNothing, {line}, {}, [=](ScriptedKernel& k) { k.fail(call, error); });
    };
    fails("no socket", Call::Socket, EMFILE, core(4, "%s(): opening NL socket failed: errno=[%d, %s]", "openSocket", EMFILE, "Too many open files"));
    fails("not bound", Call::Bind, EACCES, core(4, "%s(): binding NL socket failed: errno=[%d, %s]", "openSocket", EACCES, "Permission denied"));
    fails("not sent", Call::SendMsg, EPERM, core(4, "%s(): sending NL message failed. errno=[%d, %s]", "messageSend", EPERM, "Operation not permitted"));
    check("no protocol", [] { return NetlinkMessage().messageTransact(); }, -1, kNothing, {core(4, "%s(): NL protocol not yet set. Aborting", "openSocket")});
    check("sent, but not whole", transact(), -1, kAnything, {sentShort(15, 16)}, {}, [](ScriptedKernel& k) {
        k.sendShort();
        k.answer({});
    });

    ScriptedKernel kernel;
    kernel.fail(Call::SetSockOpt, ENOPROTOOPT);
    EXPECT_EQ(transact(NETLINK_XFRM)(), 0) << "extended acknowledgements are not essential";
    EXPECT_EQ(kernel.requests().at(0).protocol, NETLINK_XFRM);
    EXPECT_EQ(kernel.log(), (Log{core(3, "%s(): EXTACK not supported", "openSocket"), kAcked}));
}

TEST(Exchange, TransactTakesTheFirstError)
{
    const auto gets = [](const char* what, const std::vector<Reply>& answer, int result, const Log& log) {
        check(what, transact(), result, route("10000000 1000 0500 00000000 00000000"), log, {answer});
    };
    const LogLine noAck = core(4, "%s(): no NL ACK received from kernel", "messageTransact");
    const LogLine invalid = core(4, "%s(): invalid NL error received", "messageTransact");

    gets("an acknowledgement", replies({kAck}), 0, {kAcked});
    gets("other messages before it are skipped", replies({kOther + kDone + kAck}), 0, {kAcked});
    gets("a refusal decides, whatever follows", replies({kNoEntry + kAck}), -ENOENT, {refused(-ENOENT), kNoExtAckText});
    gets("an error message of 35 bytes", replies({kShortErr}), -1, {invalid});
    gets("an ordinary message, nothing else", replies({kOther}), -1, {noAck});
    gets("a header, nothing else", replies({"10000000 1000 0000 00000000 00000000"}), -1, {noAck});
    gets("15 bytes", replies({kOther.substr(0, 34)}), -1, {noAck});
    gets("a length below the header's", replies({kTooShort + kAck}), -1, {noAck});
    gets("a length beyond the datagram", replies({kTooLong}), -1, {noAck});
    gets("the padding of the last message is missing", replies({kOdd}), -1, {noAck});
    gets("the length of an acknowledgement is a byte too large", replies({"25" + kAck.substr(2)}), -1, {noAck});
    gets("a message of odd length before it", replies({kOdd + "000000" + kAck}), 0, {kAcked});
    gets("a positive error", replies({"24000000 0200 0000 00000000 00000000  02000000 16*00"}), ENOENT, {refused(ENOENT), kNoExtAckText});
    gets("4,096 bytes are read", replies({"dc0f0000 1000 0000 00000000 00000000 999*00 999*00 999*00 999*00 48*00" + kAck}), 0, {kAcked});
    gets("and no more", replies({"e00f0000 1000 0000 00000000 00000000 999*00 999*00 999*00 999*00 52*00" + kAck}), -1, {noAck});
    gets("nothing", {failedReceive(ENOBUFS)}, -1, {core(4, "%s(): receiving NL ACK from kernel failed: errno=[%d, %s]", "messageTransact", ENOBUFS, "No buffer space available")});
}

TEST(Exchange, FindsExtendedText)
{
    // Refusals with error -22 and attributes (flag 0x200), some capped (0x100). The walk starts 12 bytes before the
    // attributes: inside the echo of the request, whose end each case gives.
    const std::string tlvs = "0200 0002 00000000 00000000  eaffffff";
    const std::string capped = "0200 0003 00000000 00000000  eaffffff";
    const std::string text = "0a00 0100 6e6f20676f00 0000"; // NLMSGERR_ATTR_MSG "no go"
    const auto gets = [](const char* what, const std::string& refusal, bool found, int protocol) {
        Log log{refused(-EINVAL)};
        if (found) log.push_back(core(4, "%s(): EXTACK reports %s", "extack", "no go"));
        check(what, transact(protocol), -EINVAL, kAnything, log, {replies({refusal})});
    };

    gets("the echo ends in 12 bytes of attributes, the walk arrives at the text", "34000000" + tlvs + "14000000 4800 0506 0c000200 aaaaaaaa bbbbbbbb" + text, true, NETLINK_ROUTE);
    gets("it does not end so", "34000000" + tlvs + "14000000 4800 0506 00000000 00000000 bbbbbbbb" + text, false, NETLINK_ROUTE);
    gets("capped: the walk starts in the echoed header", "30000000" + capped + "18000000 0c00 0500 00000000 00000000" + text, true, NETLINK_ROUTE);
    gets("the last text wins, a type of 7 is no text", "44000000" + tlvs + "14000000 4800 0506 0c000200 00000000 00000000 0700 0100 61626300" + text + "0800 0700 63636300", true,
         NETLINK_ROUTE);
    gets("a text without NUL ends where its attribute does", "34000000" + tlvs + "14000000 4800 0506 0c000200 00000000 00000000 0900 0100 6e6f20676f 666666", true, NETLINK_ROUTE);
    gets("the echo of an SA ends in key bytes that look like a text, which must not be logged",
         "30000000" + tlvs + "1c000000 1000 0500 00000000 00000000 0c000100 53454352 45540000", false, NETLINK_XFRM);
    gets("nor may those of an SA's update, where the text begins later", "34000000" + tlvs + "20000000 1a00 0500 00000000 00000000 53454352 04000200 08000100 53454352", false,
         NETLINK_XFRM);
    gets("what follows the echo may", "3c000000" + tlvs + "1c000000 1a00 0500 00000000 00000000 0c000100 53454352 45540000" + text, true, NETLINK_XFRM);
    gets("the echo of another XFRM request has no keys", "30000000" + tlvs + "1c000000 1300 0500 00000000 00000000 0c000100 6e6f2067 6f000000", true, NETLINK_XFRM);
    gets("nor has that of another protocol", "30000000" + tlvs + "1c000000 1000 0500 00000000 00000000 0c000100 6e6f2067 6f000000", true, NETLINK_ROUTE);
}

TEST(Exchange, QueryStopsWhenTheCallbackIsSatisfied)
{
    const auto gets = [](const char* what, VeskNetlinkQueryReturn verdict, bool required, const std::vector<Reply>& answer, int messages, int result, const Log& log) {
        check(what, query(verdict, required, messages), result, route("10000000 1a00 0100 00000000 00000000"), log, {answer});
    };
    const auto reported = [](int error) { return core(4, "%s(): kernel reports error %d", "messageQuery", error); };
    const LogLine notFound = core(4, "%s(): netlink query response not found", "messageQuery");
    const LogLine failure = core(4, "%s(): netlink query cb reports failure", "messageQuery");
    const LogLine invalid = core(4, "%s(): invalid NL error received", "messageQuery");
    const auto other = static_cast<VeskNetlinkQueryReturn>(3);

    gets("found in the first of two", NetlinkQueryDone, true, replies({kOther + kOther}), 1, 0, {});
    gets("failed in the first of two", NetlinkQueryFailed, false, replies({kOther + kOther}), 1, -1, {failure});
    gets("not found, the end of a dump is shown too", NetlinkQueryContinue, false, replies({kOther + kDone}), 2, 0, {});
    gets("not found, but required", NetlinkQueryContinue, true, replies({kOther}), 1, -1, {notFound});
    gets("an unknown verdict goes on", other, true, replies({kOther + kOther}), 2, -1, {notFound});
    gets("15 bytes", NetlinkQueryDone, true, replies({kOther.substr(0, 34)}), 0, -1, {notFound});
    gets("a length beyond the datagram", NetlinkQueryDone, true, replies({kTooLong}), 0, -1, {notFound});
    gets("a bad length hides the rest", NetlinkQueryDone, false, replies({kTooShort + kOther}), 0, 0, {});
    gets("an acknowledgement", NetlinkQueryDone, false, replies({kAck}), 0, -1, {reported(0), kNoExtAckText});
    gets("a refusal", NetlinkQueryDone, false, replies({kNoEntry}), 0, -ENOENT, {reported(-ENOENT), kNoExtAckText});
    gets("an error message of 35 bytes", NetlinkQueryDone, false, replies({kShortErr}), 0, -1, {invalid});
    gets("nothing", NetlinkQueryDone, false, {failedReceive(EINTR)}, 0, -1,
         {core(4, "%s(): receiving query response from kernel failed: errno=[%d, %s]", "messageQuery", EINTR, "Interrupted system call")});
    check("no callback", [] { return NetlinkMessage().messageQuery(); }, -1, kNothing, {core(4, "%s(): attempting to query without valid callback. Aborting", "messageQuery")});
}

TEST(Exchange, DumpGoesOnUntilDone)
{
    const auto gets = [](const char* what, const std::vector<Reply>& answer, int messages, int result, const Log& log) {
        check(what, dump(messages), result, route("10000000 1a00 0103 00000000 00000000"), log, {answer});
    };
    const auto errors = [](const char* format, int error, const char* text) { return core(4, format, "messageDump", error, text); };
    const std::string interrupted = "14000000 1000 1000 00000000 00000000  aabbccdd";
    const std::string ackWithSameFlag = "24000000 0200 1000 00000000 00000000  20*00";

    gets("two datagrams and the end", replies({kOther + kOther, kOther, kDone}), 3, 0, {});
    gets("the end hides what follows in its datagram", replies({kOther + kDone + kOther}), 1, 0, {});
    gets("its status may be positive", replies({"14000000 0300 0200 00000000 00000000  01000000"}), 0, 0, {});
    gets("short and malformed datagrams are passed over", replies({"00", kOther + kTooShort + kOther, kTooLong, kDone}), 1, 0, {});
    gets("a message without its padding is the last", replies({kOther + kOther + kOther, kOdd, kDone}), 4, 0, {});
    gets("interrupted", replies({interrupted, kDone}), 1, 0, {core(3, "%s(): NL dump was interrupted", "messageDump")});
    gets("an acknowledgement is handed on", replies({ackWithSameFlag + kOther, kDone}), 2, 0, {});
    gets("a refusal", replies({kOther, kNoEntry + kDone}), 1, -ENOENT, {errors("%s(): kernel reports errno [%d, %s]", ENOENT, "No such file or directory")});
    gets("an error message of 35 bytes", replies({kShortErr}), 0, -1, {core(4, "%s(): invalid NL ERR received", "messageDump")});
    gets("the end reports a failure, which is no refusal of the request", replies({kDoneBusy}), 0, -1,
         {errors("%s(): NL dump reports errno [%d, %s]", EBUSY, "Device or resource busy")});
    gets("an end of 19 bytes", replies({"13000000 0300 0200 00000000 00000000 000000 00"}), 0, -1, {core(4, "%s(): invalid dump done message", "messageDump")});
    gets("nothing after a datagram", {reply(hex(kOther)), failedReceive(ENOBUFS)}, 1, -1,
         {errors("%s(): receiving NL dump failed. errno=[%d %s]", ENOBUFS, "No buffer space available")});
    check("no callback", [] { return NetlinkMessage().messageDump(); }, -1, kNothing, {core(4, "%s(): attempting to dump without valid callback. Aborting", "messageDump")});
}

TEST(Attributes, AreFoundByType)
{
    const auto finds = [](const char* what, const char* run, const std::map<int, std::ptrdiff_t>& typesAndOffsets) {
        alignas(nlattr) unsigned char bytes[64];
        const Bytes given = hex(run);
        std::copy(given.begin(), given.end(), bytes);

        std::unordered_map<int, nlattr*> map{{9, reinterpret_cast<nlattr*>(bytes + 9)}}; // must stay
        NetlinkMessage::parseAttributes(reinterpret_cast<nlattr*>(bytes), map, static_cast<unsigned>(given.size()), 6);
        std::map<int, std::ptrdiff_t> found;
        for (const auto& [type, attribute] : map) found[type] = reinterpret_cast<unsigned char*>(attribute) - bytes;
        EXPECT_EQ(found, typesAndOffsets) << what;
    };
    finds("three bytes are no attribute", "040005", {{9, 9}});
    finds("the last of a type wins, flag bits do not count", "0400 0500 0600 05c0 aaaa0000", {{5, 4}, {9, 9}});
    finds("the highest type that is asked for, and one above it", "0400 0600 0400 0700", {{6, 0}, {9, 9}});
    finds("the run ends in an attribute without value", "0400 0500 0400 0600", {{5, 0}, {6, 4}, {9, 9}});
    finds("a length below 4 ends the run", "0300 0500 0400 0600", {{9, 9}});
    finds("a length beyond the run ends it", "0400 0500 0500 0600", {{5, 0}, {9, 9}});
    finds("what is left is shorter than an attribute", "0400 0500 0400", {{5, 0}, {9, 9}});
}

static Operation lookUp(std::string name, unsigned short expected)
{
    return [=]() mutable {
        unsigned short id = 0xffff;
        const int result = queryGenericNetlinkFamily(name, 2, &id);
        EXPECT_EQ(id, expected);
        return result;
    };
}

TEST(GenericFamily, IsLookedUpByName)
{
    const LogLine failed = core(4, "%s(): Netlink query failed", "queryGenericNetlinkFamily");

    check("the second message answers, its second id", lookUp("nlctrl", 0x11c), 0,
          {{{NETLINK_GENERIC, "20000000 1000 0100 00000000 00000000 | 03 02 0000 | 0b00 0200 6e6c6374 726c0000"}}}, {},
          {replies({"14000000 1000 0000 00000000 00000000 01020000"
                    "24000000 1000 0000 00000000 00000000 01020000 0600 0100 1000 0000 0600 0100 1c01 0000"})});
    check("an empty name; an id without its two bytes", lookUp("", 0xffff), -1, {{{NETLINK_GENERIC, "1c000000 1000 0100 00000000 00000000 | 03 02 0000 | 0500 0200 00000000"}}},
          {core(4, "%s(): netlink query response not found", "messageQuery"), failed}, {replies({"18000000 1000 0000 00000000 00000000 01020000 0400 0100"})});
    check("an unknown name", lookUp("x", 0xffff), -1, kAnything, {core(4, "%s(): kernel reports error %d", "messageQuery", -ENOENT), kNoExtAckText, failed}, {{refusal(-ENOENT)}});
}

TEST(ExchangeDeathTest, EndsTheProcess)
{
    const auto killed = testing::KilledBySignal(SIGABRT);
    const auto explain = [](const char* refusal) {
        Bytes bytes = hex(refusal);
        NetlinkMessage().extack(reinterpret_cast<nlmsghdr*>(bytes.data()));
    };
    EXPECT_EXIT(explain("18000000 0200 0002 00000000 00000000 eaffffff 0f000000"), killed, "extack\\(\\): .*overflow");
    EXPECT_EXIT(explain("18000000 0200 0002 00000000 00000000 eaffffff 11000000"), killed, "extack\\(\\): .*overflow");
    EXPECT_EXIT(explain("14000000 0200 0003 00000000 00000000 eaffffff"), killed, "extack\\(\\): .*overflow");

    std::unordered_map<int, nlattr*> map;
    alignas(nlattr) unsigned char unpadded[] = {5, 0, 1, 0, 0};
    EXPECT_EXIT(NetlinkMessage::parseAttributes(reinterpret_cast<nlattr*>(unpadded), map, 5, 6), killed, "parseAttributes\\(\\): .*overflow");

    ScriptedKernel kernel;
    kernel.answer(replies({"10000000 1000 0000 00000000 00000000"}));
    EXPECT_EXIT(lookUp("x", 0)(), killed, "queryGENLCb\\(\\): .*overflow");
}
