// What the building operations put on the wire.
#include "WireTest.h"

#include <algorithm>
#include <climits>
#include <stdexcept>

using namespace wire;
using Vesk::NestedAttrHandle;
using Vesk::NetlinkMessage;

static unsigned char kBytes[] = {0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6};

// Builds and transacts a request of type 0x1234.
static Operation request(void (*build)(NetlinkMessage&))
{
    return [build] {
        NetlinkMessage msg;
        msg.setNLMsgHeader(NETLINK_ROUTE, 0x1234, NLM_F_REQUEST | NLM_F_ACK);
        build(msg);
        return msg.messageTransact();
    };
}

// The library says what the C++ library does of an index out of range.
static LogLine badHandle(std::size_t index, std::size_t blocks)
{
    std::string description;
    try {
        static_cast<void>(std::vector<nlattr*>(blocks).at(index));
    } catch (const std::out_of_range& error) {
        description = error.what();
    }
    return core(4, "%s(): invalid attribute handle %zu: %s", "endNestedNLAttribute", index, description.c_str());
}

static std::function<void(ScriptedKernel&)> outOfMemory(int nth)
{
    return [nth](ScriptedKernel& kernel) { kernel.fail(Call::Allocate, 0, nth); };
}

TEST(Building, PutsBlocksOnTheWire)
{
    const auto builds = [](const char* what, const char* wire, void (*build)(NetlinkMessage&)) { check(what, request(build), 0, route(wire), {kAcked}); };
    using M = NetlinkMessage;

    builds("nothing but the header", "10000000 3412 0500 00000000 00000000", [](M&) {});
    builds("a payload is padded with zeros", "18000000 3412 0500 00000000 00000000 | a1a2a3a4 a5a60000", [](M& m) { m.addMsgPayload(6, kBytes); });
    builds("a second payload replaces the first, its length too", "14000000 3412 0500 00000000 00000000 | a3a4a5a6",
           [](M& m) { m.addMsgPayload(6, kBytes), m.addMsgPayload(4, kBytes + 2); });
    builds("an empty payload is a block of no bytes", "10000000 3412 0500 00000000 00000000 |", [](M& m) { m.addMsgPayload(0, nullptr); });
    builds("the payload goes first, each width of value is padded",
           "38000000 3412 0500 00000000 00000000 | a1a2a3a4 | 0500 0100 11000000 | 0600 0200 22220000 | 0800 0300 33333333 | 0900 0400 a1a2a3a4 a5000000", [](M& m) {
               m.addNLAttribute(1, static_cast<unsigned char>(0x11)), m.addNLAttribute(2, static_cast<unsigned short>(0x2222));
               m.addNLAttribute(3, 0x33333333u), m.addNLAttribute(4, 5, kBytes), m.addMsgPayload(4, kBytes);
           });
    builds("a value may be empty; one of negative length is no attribute", "14000000 3412 0500 00000000 00000000 | 0400 0700",
           [](M& m) { m.addNLAttribute(7, 0, nullptr), m.addNLAttribute(8, -1, kBytes); });
    builds("texts carry their NUL, and a string those inside it", "2c000000 3412 0500 00000000 00000000 | 0900 0100 7072696f 00000000 | 0500 0200 00000000 | 0800 0300 61006200",
           [](M& m) {
               char text[] = "prio";
               std::string two("a\0b", 3);
               m.addNLAttribute(1, text), m.addNLAttribute(2, ""), m.addNLAttribute(3, two);
           });
    builds("flag bits of a type pass through; of a nest the header alone is sent", "1c000000 3412 0500 00000000 00000000 | 0600 0540 a1a20000 | 0400 0680",
           [](M& m) { m.addNLAttribute(0x14005, 2, kBytes), m.addNLAttribute(0x8006, 0, nullptr); });
    builds("a nest counts its children, those of a nest inside it too, and nothing that follows",
           "34000000 3412 0500 00000000 00000000 | 0800 0100 00000000 | 1800 0280 | 0c00 0380 | 0800 0400 44444444 | 0500 0500 55000000 | 0400 0680", [](M& m) {
               NestedAttrHandle outer, inner, empty;
               m.addNLAttribute(1, 0u), m.startNestedNLAttribute(2, outer), m.startNestedNLAttribute(3, inner), m.addNLAttribute(4, 0x44444444u);
               m.endNestedNLAttribute(inner), m.addNLAttribute(5, static_cast<unsigned char>(0x55)), m.endNestedNLAttribute(outer);
               m.startNestedNLAttribute(6, empty), m.endNestedNLAttribute(empty);
           });
}

// Adds an attribute of type 3 and ends a nest that never began.
static void misuse(NetlinkMessage& msg, NestedAttrHandle nest) { msg.addNLAttribute(3, 3u), msg.endNestedNLAttribute(nest); }

TEST(Building, GoesOnWithoutWhatCannotBeAdded)
{
    const Sends child = route("18000000 3412 0500 00000000 00000000 | 0800 0300 03000000");
    const LogLine payload = core(4, "%s(): adding payload failed", "addMsgPayload");

    check("no memory for a payload: the earlier one is gone, its length still counts", request([](auto& m) { m.addMsgPayload(4, kBytes), m.addMsgPayload(6, kBytes); }), -1,
          route("14000000 3412 0500 00000000 00000000"), {payload, sentShort(16, 20)}, {}, outOfMemory(2));
    check("a negative length is a failed allocation", request([](auto& m) { m.addMsgPayload(-5, kBytes); }), 0, route("10000000 3412 0500 00000000 00000000"), {payload, kAcked});
    check("no memory for an attribute", request([](auto& m) { m.addNLAttribute(9, 1u), m.addNLAttribute(3, 3u); }), 0, child,
          {core(4, "%s(): adding attribute of type %d failed", "addNLAttribute", 9), kAcked}, {}, outOfMemory(1));
    check("no memory for a nest: its end does not touch the child in its place", request([](auto& m) {
              NestedAttrHandle nest;
              m.startNestedNLAttribute(2, nest);
              m.addNLAttribute(3, 3u);
              m.endNestedNLAttribute(nest);
          }),
          0, child, {core(4, "%s(): adding attribute of type %d failed", "addNLAttribute", 0x8002), badHandle(SIZE_MAX, 1), kAcked}, {}, outOfMemory(1));
    check("a handle one past the last block", request([](auto& m) {
              misuse(m, {99, 1}); /* and a start behind the end */
          }),
          0, child, {badHandle(1, 1), kAcked});
    check("a handle of an attribute that is no nest", request([](auto& m) {
              misuse(m, {0, 0});
          }),
          0, child, {core(4, "%s(): invalid attribute handle %zu: %s", "endNestedNLAttribute", std::size_t{0}, "not a nested attribute"), kAcked});
    check("no memory for the scatter list", request([](auto& m) { m.addMsgPayload(4, kBytes); }), -1, kNothing, {core(4, "%s(): msg allocation failed", "messageSend")}, {},
          outOfMemory(2));
    check("a value that the length field cannot hold is never sent whole", request([](auto& m) {
              static unsigned char big[65532];
              m.addNLAttribute(1, sizeof big, big);
          }),
          -1, route("10000100 3412 0500 00000000 00000000 |"), {sentShort(16, 65552)});
}

TEST(Building, ServesOneRequest)
{
    check("a second send has the length of the first in its header",
          [] {
              NetlinkMessage msg;
              msg.setNLMsgHeader(NETLINK_ROUTE, 0x1234, NLM_F_REQUEST);
              msg.addMsgPayload(4, kBytes);
              return 10 * msg.messageTransact() + msg.messageTransact();
          },
          -1, {{{NETLINK_ROUTE, "14000000 3412 0100 00000000 00000000 | a1a2a3a4"}, {NETLINK_ROUTE, "24000000 3412 0100 00000000 00000000 | a1a2a3a4"}}},
          {core(2, "%s(): not requesting ACK for NL message\n", "messageTransact"), sentShort(20, 36)});
    check("a cleared payload still counts", request([](auto& m) { m.addMsgPayload(4, kBytes), m.clearMsgPayload(); }), -1, route("14000000 3412 0500 00000000 00000000"),
          {sentShort(16, 20)});
    check("cleared attributes are freed once",
          [] {
              NetlinkMessage msg;
              msg.addNLAttribute(1, 1u);
              msg.clearAttributes();
              return 0;
          },
          0, kNothing, {});
}

TEST(Building, WipesWhatItFrees)
{
    static unsigned char secret[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    ScriptedKernel kernel;
    kernel.run(request([](auto& m) {
        m.addMsgPayload(12, secret), m.addMsgPayload(12, secret);
        m.addNLAttribute(1, 8, secret);
    }));
    EXPECT_EQ(std::count(kernel.freedBlocks().begin(), kernel.freedBlocks().end(), Bytes(12)), 3);
}

TEST(BuildingDeathTest, EndsTheProcess)
{
    const auto killed = testing::KilledBySignal(SIGABRT);
    NetlinkMessage msg;
    NestedAttrHandle later{8, 0};
    msg.addNLAttribute(NLA_F_NESTED, 0, nullptr);
    EXPECT_EXIT(msg.addMsgPayload(-4, kBytes), killed, "addMsgPayload\\(\\): .*overflow");
    EXPECT_EXIT(msg.addMsgPayload(-1, kBytes), killed, "addMsgPayload\\(\\): .*overflow");
    EXPECT_EXIT(msg.addNLAttribute(1, INT_MAX, kBytes), killed, "addNLAttribute\\(\\): .*overflow");
    EXPECT_EXIT(msg.endNestedNLAttribute(later), killed, "endNestedNLAttribute\\(\\): .*overflow");

    ScriptedKernel kernel;
    kernel.fail(Call::AllocateOrThrow, 0); // the list of attributes
    EXPECT_EXIT(kernel.run(request([](auto& m) { m.addNLAttribute(1, 1u); })), killed, "");
}
