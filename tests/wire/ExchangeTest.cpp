// The socket, the three exchanges, extended acknowledgements, attributes, the look-up of a family, and the logger.
#include "WireTest.h"

#include <map>

#include <dlfcn.h>
#include <linux/genetlink.h>

using namespace wire;

static const auto [check, acked, rejects, refused] = Checks(NETLINK_ROUTE);

static const LoggedBy kTransact = core("messageTransact"), kQuery = core("messageQuery"), kDumped = core("messageDump");
static const std::string kOther = message(26, 0), kShortError = "23000000 0200 0000 8*00 00000000 15*00 00";

// An exchange of a request that is none of the kernel's. What it found is the types of the messages that its callback
// saw, to each of which that gave this verdict; then the result, and the kernel's error where there was one.
static Operation exchange(int (NetlinkMessage::*run)(), unsigned short flags, int verdict = NetlinkQueryContinue,
                          bool responseRequired = false)
{
    return [=] {
        std::pair<std::string, int> seen{"", verdict};
        const auto see = [](nlmsghdr* shown, void* context) {
            auto& [types, says] = *static_cast<decltype(seen)*>(context);
            types += std::to_string(shown->nlmsg_type) + ' ';
            return static_cast<VeskNetlinkQueryReturn>(says);
        };
        NetlinkMessage msg;
        msg.setNLMsgHeader(NETLINK_ROUTE, kMadeUp, flags);
        msg.setQueryCb(see, &seen, responseRequired);
        msg.setDumpCb([](nlmsghdr* shown, void* context) { decltype(see)()(shown, context); }, &seen);
        const int result = (msg.*run)();
        const int error  = msg.getKernelError();
        return seen.first + std::to_string(result) + (error != 0 ? '/' + std::to_string(error) : "");
    };
}

static Operation transact(unsigned short flags = kAck)
{
    return exchange(&NetlinkMessage::messageTransact, flags);
}

static Operation query(int verdict = NetlinkQueryDone, bool required = false)
{
    return exchange(&NetlinkMessage::messageQuery, NLM_F_REQUEST, verdict, required);
}

static Operation dump()
{
    return exchange(&NetlinkMessage::messageDump, kDump);
}

// What programs were built with
static_assert(NetlinkQueryFailed == 0 && NetlinkQueryDone == 1 && NetlinkQueryContinue == 2);

TEST(Exchange, NeedsASocket)
{
    const LoggedBy open = core("openSocket");

    for (const Operation& any : {transact(), query(NetlinkQueryDone, true), dump()}) {
        const Check gets({.call = any, .result = -1});
        const auto fails = [&](Call call, int error, const LogLine& line) {
            gets({.given =
                      [=](ScriptedKernel& k) {
                          k.fail(call, error);
                          k.fail(Call::Close, EIO);
                      },
                  .error = error,
                  .log   = line});
        };
        fails(Call::Socket, EMFILE, withErrno(open, "opening NL socket failed: errno=[%d, %s]", EMFILE));
        fails(Call::Bind, EACCES, withErrno(open, "binding NL socket failed: errno=[%d, %s]", EACCES));
        fails(Call::SendMsg, EPERM, withErrno(core("messageSend"), "sending NL message failed. errno=[%d, %s]", EPERM));
        for (const int counted : {0, 17})
            gets({.given =
                      [=](ScriptedKernel& k) {
                          k.miscountSends(counted - 16);
                          k.answer({});
                      },
                  .error = EMSGSIZE,
                  .sends = kAnything,
                  .log   = miscounted(counted, 16)});
    }
    rejects({.call  = [] { return NetlinkMessage().messageTransact(); },
             .error = EINVAL,
             .log   = open.failure("NL protocol not yet set. Aborting")});

    Kernel kernel;
    kernel.fail(Call::SetSockOpt, ENOPROTOOPT);
    EXPECT_STREQ(transact()().text, "0") << "extended acknowledgements are not essential";
    EXPECT_EQ(kernel.log(), (Log{open.notice("EXTACK not supported"), kAcked}));
    EXPECT_NE(kernel.log().at(0).line, 0u);
}

TEST(Exchange, KeepsItsSocket)
{
    const auto twoExchanges = [](int (*then)(NetlinkMessage&)) {
        return [=] {
            NetlinkMessage msg;
            msg.setNLMsgHeader(NETLINK_ROUTE, 16, kAck);
            const int first = msg.messageTransact();
            msg.addMsgPayload(0, nullptr); // the length anew
            const int second = then(msg);
            return std::to_string(first) + ' ' + std::to_string(second) + ' ' + std::to_string(msg.getKernelError());
        };
    };
    const auto opensTwice = [] {
        NetlinkMessage msg;
        msg.setNLMsgHeader(NETLINK_ROUTE, 16, NLM_F_REQUEST);
        return msg.openSocket() + msg.openSocket() + msg.messageSend();
    };
    const Check gets({.sends = kAnything});
    gets({.what = "two exchanges go through one socket, 0 though it be; a success leaves the error",
          .given =
              [](ScriptedKernel& k) {
                  k.numberSockets(0);
                  k.fail(Call::Socket, EMFILE, 2);
              },
          .answers = {{refusal(-ENOENT)}},
          .call    = twoExchanges([](NetlinkMessage& msg) { return msg.messageTransact(); }),
          .result  = "-1 0 -2",
          .error   = ENOENT,
          .log     = {refusedBy(-ENOENT), kAcked}});
    gets({.what    = "an acknowledgement fails a query, with its error",
          .answers = {{refusal(-ENOENT)}},
          .call    = twoExchanges([](NetlinkMessage& msg) {
              return msg.messageQuery([](nlmsghdr*, void*) { return NetlinkQueryDone; }, nullptr, false);
          }),
          .result  = "-1 -1 0",
          .error   = EBADMSG,
          .log     = {refusedBy(-ENOENT), kQuery.failure("kernel reports error %d", 0), kNoText}});
    gets({.what    = "a dump leaves the error, too",
          .answers = {{refusal(-ENOENT)}, {kEnd}},
          .call   = twoExchanges([](NetlinkMessage& msg) { return msg.messageDump([](nlmsghdr*, void*) {}, nullptr); }),
          .result = "-1 0 -2",
          .error  = 0,
          .log    = refusedBy(-ENOENT)});
    gets({.what  = "opened twice, the first one is closed, 0 though it be; nothing is awaited",
          .given = [](ScriptedKernel& k) { k.numberSockets(0); },
          .call  = opensTwice});
}

// As much as kernels put into a datagram, and into zeros.
TEST(Exchange, ReceivesAPageOfTheMachineAndAtMost8KiB)
{
    for (const auto& [page, size] : {std::pair(4096, 4096u), {16384, 8192u}, {65536, 8192u}})
        for (const auto& [any, whole, cut] :
             {std::tuple(transact(), "0", "-1"), {query(), "26 0", "26 0"}, {dump(), "26 2 -1", "26 -1"}})
            for (const unsigned beyond : {0u, 4u}) { // bytes of the acknowledgement
                Kernel kernel;
                kernel.setPageSize(page);
                kernel.answer({message(26, 0, {std::to_string(size + beyond - 16 - 36) + "*00"}) + acknowledgement()});
                EXPECT_STREQ(any().text, beyond == 0 ? whole : cut) << page;
                EXPECT_EQ(kernel.receiveBuffers().at(0), Bytes(size)) << page;
            }
}

TEST(Exchange, TransactTakesTheFirstError)
{
    const Check gets({.call = transact(), .result = -1, .error = EBADMSG, .sends = {message(kMadeUp, kAck)}});
    const Log none        = kTransact.failure("no NL ACK received from kernel");
    const std::string yes = acknowledgement(), no = refusal(-ENOENT);

    gets({.what = "others before it are skipped", .answers = {{kOther + kEnd + yes}}, .result = 0, .log = kAcked});
    gets({.what    = "a refusal decides",
          .answers = {{no + yes}},
          .result  = "-1/-2",
          .error   = ENOENT,
          .log     = refusedBy(-ENOENT)});
    gets({.what = "no kernel's error", .answers = {{refusal(2)}}, .result = "-1/2", .log = refusedBy(2)});
    gets({.what = "nor this", .answers = {{refusal(-4096)}}, .result = "-1/-4096", .log = refusedBy(-4096)});
    gets({.answers = {{refusal(-4095)}}, .result = "-1/-4095", .error = 4095, .log = refusedBy(-4095)});
    gets({.what    = "one that is cut off",
          .given   = [](ScriptedKernel& k) { k.setPageSize(4096); },
          .answers = {{message(26, 0, {"4048*00"}) + "25000000 0200 0000 8*00 ffffffff 16*00 00"}},
          .error   = EMSGSIZE,
          .log     = none});
    gets({.answers = {{kShortError}}, .log = kTransact.failure("invalid NL error received")});
    gets({.what = "an ordinary message, nothing else", .answers = {{kOther}}, .log = none});
    gets({.what = "nothing", .answers = {{""}}, .log = none});
    gets({.what = "a byte is missing", .answers = {{"25" + yes.substr(2)}}, .log = none});
    gets({.answers = {{failedReceive(ENOBUFS)}},
          .error   = ENOBUFS,
          .log     = withErrno(kTransact, "receiving NL ACK from kernel failed: errno=[%d, %s]", ENOBUFS)});
    gets({.call   = transact(0xfcfb), // all flags but this one, and those of a dump
          .result = 0,
          .sends  = {message(kMadeUp, 0xfcfb)},
          .log    = kTransact.detail("not requesting ACK for NL message\n")});
}

// A datagram that fills the receive and ends inside a message was longer. What ends otherwise is dropped.
TEST(Exchange, FailsWhenAReplyIsCutOff)
{
    const auto full = [](const std::string& left, unsigned bytes) { // the last of a receive, after a message
        return message(26, 0, {std::to_string(4096 - 16 - bytes) + "*00"}) + left;
    };
    const auto cut = [](const LoggedBy& by) {
        return by.failure("NL reply was cut off at %zu bytes", std::size_t{4096});
    };
    const auto pageOf4K = [](ScriptedKernel& k) { k.setPageSize(4096); };
    const Check drops({.given = pageOf4K, .call = dump(), .result = "26 0", .error = 0, .sends = kAnything});
    const Check dumps({.given  = pageOf4K,
                       .call   = dump(),
                       .result = "26 -1",
                       .error  = EMSGSIZE,
                       .sends  = kAnything,
                       .log    = cut(kDumped)});
    for (const auto& [left, bytes] : {std::pair("15000000 1a00 0000 8*00 00000000", 20u),
                                      {"14000000 1a00 0000 8*00", 16u},
                                      {"10000000 1a00 0000", 8u},
                                      {"10000000", 4u}})
        dumps({.what = left, .answers = {{full(left, bytes)}}});
    for (const auto& [left, bytes] : {std::pair("0f000000 1a00", 8u), // two bytes short of filling it, and no message
                                      {"0c000000 1a00 0000", 8u},
                                      {"0f000000", 4u},
                                      {"10000000", 8u}})
        drops({.what = left, .answers = {{full(left, bytes), kEnd}}});

    const std::string half = full("10000000 1a00 0000", 8);
    dumps({.answers = {{half}}, .call = query(NetlinkQueryContinue), .log = cut(kQuery)});
    dumps({.answers = {{half}}, .call = query(NetlinkQueryContinue, true), .log = cut(kQuery)});
    drops({.answers = {{half}}, .call = query()});
}

// Explains refusals, each of which is given from its error on: the echo of a request, in whose last 12 bytes the walk
// over attributes begins, and attributes.
static Operation explain(const std::vector<const char*>& refusals, int protocol = NETLINK_ROUTE,
                         int flags = NLM_F_ACK_TLVS)
{
    return [=] {
        NetlinkMessage msg;
        msg.setNLMsgHeader(protocol, 16, kAck);
        for (const char* refusal : refusals) {
            Bytes bytes = hex(message(NLMSG_ERROR, flags, {std::string("eaffffff") + refusal}));
            msg.extack(reinterpret_cast<nlmsghdr*>(bytes.data()));
        }
        return 0;
    };
}

TEST(Exchange, FindsExtendedText)
{
    const auto reports = [](const std::string& text) {
        return core("extack").failure("EXTACK reports %s", text.c_str());
    };
    const std::vector<const char*> ofRoutes = {
        "14000000 4800 0506 0c000200 aaaaaaaa bbbbbbbb 0800 0100 6f6e6500", // the echo ends in attributes: "one"
        "14000000 4800 0506 00000000 00000000 bbbbbbbb 0800 0100 6e6f7400", // it does not
        "14000000 4800 0506 0c000200 8*00 0800 0100 6e6f7400 0800 0100 74776f00 0800 0700 6e6f7400", // the last: "two"
        "14000000 4800 0506 0c000200 8*00 0700 0100 656e64 66", // without NUL: "end"
        "14000000 4800 0506 0c000200 8*00 7007 0100 1900*78",
        "1c000000 1000 0500 8*00 0c000100 6e6f6b65 79000000", // what is an SA in IPsec: "nokey"
    };
    const std::vector<const char*> ofIpsec = {
        "1c000000 1000 0500 8*00 0c000100 53454352 45540000",                    // an SA, and so a key: "SECRET"
        "20000000 1a00 0500 8*00 53454352 04000200 08000100 53454352",           // its update
        "1c000000 1a00 0500 8*00 0c000100 53454352 45540000 0800 0100 746f6f00", // what follows it: "too"
        "1c000000 1300 0500 8*00 0c000100 6e6f6b65 79000000",                    // a policy: "nokey"
    };
    const std::vector<const char*> capped = {"18000000 0c00 0500 8*00 0800 0100 63617000"}; // in the header: "cap"

    check({.call = explain(ofRoutes),
           .log = {reports("one"), reports("two"), reports("end"), reports(std::string(1900, 'x')), reports("nokey")}});
    check({.call = explain(ofIpsec, NETLINK_XFRM), .log = {reports("too"), reports("nokey")}});
    check({.call = explain(capped, NETLINK_ROUTE, NLM_F_ACK_TLVS | NLM_F_CAPPED), .log = reports("cap")});
}

TEST(Exchange, QueryStopsWhenTheCallbackIsSatisfied)
{
    const Check gets(
        {.answers = {{kOther + kOther}}, .call = query(), .result = -1, .sends = {message(kMadeUp, NLM_F_REQUEST)}});
    const auto reported = [](int error) { return Log{kQuery.failure("kernel reports error %d", error), kNoText}; };

    gets({.what = "found", .call = query(NetlinkQueryDone, true), .result = "26 0"});
    gets({.call   = query(NetlinkQueryFailed),
          .result = "26 -1",
          .error  = ECANCELED,
          .log    = kQuery.failure("netlink query cb reports failure")});
    gets({.what    = "not found in a dump, whose end is shown too",
          .answers = {{kOther + kEnd}},
          .call    = query(NetlinkQueryContinue),
          .result  = "26 3 0"});
    gets({.what   = "an unknown verdict goes on; an answer was required",
          .call   = query(3, true),
          .result = "26 26 -1",
          .error  = ENOENT,
          .log    = kQuery.failure("netlink query response not found")});
    gets({.what = "an acknowledgement", .answers = {{acknowledgement()}}, .error = EBADMSG, .log = reported(0)});
    gets({.answers = {{refusal(-ENOENT)}}, .result = "-1/-2", .error = ENOENT, .log = reported(-ENOENT)});
    gets({.answers = {{kShortError}}, .error = EBADMSG, .log = kQuery.failure("invalid NL error received")});
    gets({.answers = {{failedReceive(EINTR)}},
          .error   = EINTR,
          .log     = withErrno(kQuery, "receiving query response from kernel failed: errno=[%d, %s]", EINTR)});
    rejects({.call  = [] { return NetlinkMessage().messageQuery(); },
             .error = EINVAL,
             .log   = kQuery.failure("attempting to query without valid callback. Aborting")});
}

TEST(Exchange, DumpGoesOnUntilDone)
{
    const Check gets({.call = dump(), .result = -1, .sends = {message(kMadeUp, kDump)}});
    const std::string other = message(17, 0, {"aabbccdd"});
    const std::string odd   = "11000000 1200 0000 8*00 aa"; // padded by "000000", or the end
    const Answers walk      = {{other + other, odd, "", other.substr(0, 30), kOther + odd + "000000" + kOther,
                                kOther + "0f000000 1300 0000 8*00" + kOther, "15000000 1300 0000 8*00 aabbccdd",
                                kEnd + other}};

    gets({.what    = "a datagram is walked through as far as lengths are good, then the next",
          .answers = walk,
          .result  = "17 17 18 26 18 26 26 0",
          .error   = 0});
    gets({.what = "its status may be positive", .answers = {{endOfDump(1)}}, .result = 0, .error = 0});
    gets({.what    = "its end alone tells of an interruption",
          .answers = {{kOther, message(NLMSG_DONE, NLM_F_DUMP_INTR, {"00000000"})}},
          .result  = "26 0",
          .error   = EINTR});
    gets({.what    = "an acknowledgement is handed on, whatever its flags; of an interruption other messages tell",
          .answers = {{message(NLMSG_ERROR, NLM_F_DUMP_INTR, {"20*00"}) + message(26, NLM_F_DUMP_INTR), kEnd}},
          .result  = "2 26 0",
          .error   = EINTR,
          .log     = kDumped.notice("NL dump was interrupted")});
    gets({.answers = {{kOther, refusal(-ENOENT) + kEnd}},
          .result  = "26 -1/-2",
          .error   = ENOENT,
          .log     = withErrno(kDumped, "kernel reports errno [%d, %s]", ENOENT)});
    gets({.answers = {{refusal(2)}},
          .result  = "-1/2",
          .error   = EBADMSG,
          .log     = withErrno(kDumped, "kernel reports errno [%d, %s]", -2)});
    gets({.answers = {{kShortError}}, .error = EBADMSG, .log = kDumped.failure("invalid NL ERR received")});
    gets({.what    = "no refusal of the request",
          .answers = {{endOfDump(-EBUSY)}},
          .error   = EBUSY,
          .log     = withErrno(kDumped, "NL dump reports errno [%d, %s]", EBUSY)});
    gets({.answers = {{endOfDump(-4096)}},
          .error   = EBADMSG,
          .log     = withErrno(kDumped, "NL dump reports errno [%d, %s]", 4096)});
    gets({.answers = {{"13000000 0300 0200 8*00 000000 00"}},
          .error   = EBADMSG,
          .log     = kDumped.failure("invalid dump done message")});
    gets({.answers = {{kOther, failedReceive(ENOBUFS)}},
          .result  = "26 -1",
          .error   = ENOBUFS,
          .log     = withErrno(kDumped, "receiving NL dump failed. errno=[%d %s]", ENOBUFS)});
    rejects({.call  = [] { return NetlinkMessage().messageDump(); },
             .error = EINVAL,
             .log   = kDumped.failure("attempting to dump without valid callback. Aborting")});
}

TEST(Attributes, AreFoundByType)
{
    const auto finds = [](const char* what, const char* run, const std::string& typesAndOffsets) {
        Bytes bytes = hex(run);
        auto* first = reinterpret_cast<nlattr*>(bytes.data());
        std::unordered_map<int, nlattr*> map{{9, first}}; // must stay
        NetlinkMessage::parseAttributes(first, map, static_cast<unsigned>(bytes.size()), 6);
        std::string found;
        for (const auto& [type, attribute] : std::map(map.begin(), map.end()))
            found += std::to_string(type) + '@' + std::to_string(4 * (attribute - first)) + ' ';
        EXPECT_EQ(found, typesAndOffsets + "9@0 ") << what;
    };
    finds("three bytes are no attribute", "040005", "");
    finds("the last of a type wins, flag bits do not count", "0400 0500 0600 05c0 aaaa0000", "5@4 ");
    finds("the highest type that is asked for, and one above it", "0400 0600 0400 0700", "6@0 ");
    finds("the run ends in an attribute without value", "0400 0500 0400 0600", "5@0 6@4 ");
    finds("a length below 4 ends the run", "0300 0500 0400 0600", "");
    finds("a length beyond the run ends it", "0400 0500 0500 0600", "5@0 ");
    finds("what is left is shorter than an attribute", "0400 0500 0400", "5@0 ");
}

// The number, or how it failed.
static Operation lookUp(std::string name, unsigned char version = 2)
{
    return [=]() mutable {
        unsigned short id = 0xdead;
        const int result  = queryGenericNetlinkFamily(name, version, &id);
        return id == 0xdead ? std::to_string(result) : std::to_string(id) + (result == 0 ? "" : " though it failed");
    };
}

TEST(GenericFamily, IsLookedUpByName)
{
    const LogLine failed = core("queryGenericNetlinkFamily").failure("Netlink query failed");
    const Check gets({.result = -1, .sends = kAnything}, NETLINK_GENERIC);
    const auto family        = [](Blocks attributes) { return message(GENL_ID_CTRL, 0, attributes); };
    const std::string header = "01020000";

    gets({.what    = "the second message answers, its second id",
          .answers = {{family({header}) +
                       family({header, attr(CTRL_ATTR_FAMILY_ID, "1000"), attr(CTRL_ATTR_FAMILY_ID, "1c01")})}},
          .call    = lookUp("nlctrl", 3),
          .result  = 0x11c,
          .sends   = {
                message(GENL_ID_CTRL, NLM_F_REQUEST, {"03 03 0000", attr(CTRL_ATTR_FAMILY_NAME, "6e6c6374726c00")})}});
    gets({.what    = "an empty name; a number of 0, in more bytes than are read",
          .answers = {{family({header, attr(CTRL_ATTR_FAMILY_ID, "0000ffff")})}},
          .call    = lookUp(""),
          .result  = 0,
          .sends   = {message(GENL_ID_CTRL, NLM_F_REQUEST, {"03 02 0000", attr(CTRL_ATTR_FAMILY_NAME, "00")})}});
    gets({.what    = "half a number",
          .answers = {{family({header, attr(CTRL_ATTR_FAMILY_ID, "10")})}},
          .call    = lookUp("x"),
          .error   = ENOENT,
          .log     = {kQuery.failure("netlink query response not found"), failed}});
    gets({.what    = "an unknown name",
          .answers = {{refusal(-ENOENT)}},
          .call    = lookUp("x"),
          .error   = ENOENT,
          .log     = {kQuery.failure("kernel reports error %d", -ENOENT), kNoText, failed}});
}

// The library's own, whose place is taken in all other tests.
TEST(Logger, WritesALineFromLevelThreeOn)
{
    using DoLog = void(LogMgr*, log_level, const char*, unsigned, const char*, ...);
    auto* const doLog =
        reinterpret_cast<DoLog*>(dlsym(dlopen("libvesk_utils.so", RTLD_NOW), "_ZN6LogMgr5doLogE9log_levelPKcjS2_z"));
    ASSERT_NE(doLog, nullptr);
    LogMgr own;
    unsetenv("VESK_LOG_LEVEL");
    testing::internal::CaptureStderr();
    doLog(&own, log_level_detail, "src/a", 1, "left out");
    doLog(&own, log_level_notice, "src/a", 2, "%S: %d\n", "f", 3);
    doLog(&own, log_level_failure, "src/a", 4, "one\ntwo");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "N src/a:2 f: 3\nF src/a:4 one two\n");
}

TEST(ExchangeDeathTest, EndsTheProcess)
{
    const auto killed  = testing::KilledBySignal(SIGABRT);
    const auto explain = [](const char* refusal) {
        Bytes bytes = hex(refusal);
        NetlinkMessage().extack(reinterpret_cast<nlmsghdr*>(bytes.data()));
    };
    EXPECT_EXIT(explain("18000000 0200 0002 8*00 eaffffff 0f000000"), killed, "extack.*overflow");
    EXPECT_EXIT(explain("18000000 0200 0002 8*00 eaffffff 11000000"), killed, "extack.*overflow");
    EXPECT_EXIT(explain("14000000 0200 0003 8*00 eaffffff"), killed, "extack.*overflow");

    std::unordered_map<int, nlattr*> map;
    alignas(nlattr) unsigned char unpadded[] = {5, 0, 1, 0, 0};
    EXPECT_EXIT(NetlinkMessage::parseAttributes(reinterpret_cast<nlattr*>(unpadded), map, 5, 6), killed,
                "parseAttributes.*overflow");

    Kernel kernel;
    kernel.answer({message(GENL_ID_CTRL, 0)});
    EXPECT_EXIT(lookUp("x")(), killed, "queryGENLCb.*overflow");
}
