// What the building operations put on the wire.
#include "WireTest.h"

#include <algorithm>
#include <climits>

using namespace wire;

using M = NetlinkMessage;

static unsigned char kBytes[] = {0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6};

// Builds and transacts a request that is none of the kernel's.
static Operation request(void (*build)(M&))
{
    return [=] {
        M msg;
        msg.setNLMsgHeader(NETLINK_ROUTE, kMadeUp, kAck);
        build(msg);
        return msg.messageTransact();
    };
}

// What it sends when nothing went wrong.
static Sends sent(Blocks blocks)
{
    return Sends{message(kMadeUp, kAck, blocks)};
}

TEST(Building, PutsBlocksOnTheWire)
{
    const Check check({.log = kAcked});

    check({.what  = "a second payload replaces the first, its length too, and is padded with zeros",
           .call  = request([](M& m) {
               m.addMsgPayload(4, kBytes);
               m.addMsgPayload(5, kBytes);
           }),
           .sends = sent({"a1a2a3a4 a5000000"})});
    check({.what  = "an empty payload is a block of no bytes",
           .call  = request([](M& m) { m.addMsgPayload(0, nullptr); }),
           .sends = sent({""})});
    check({.what  = "the payload goes first; values are padded, texts end in NUL; of a nest the header alone is sent",
           .call  = request([](M& m) {
               char text[] = "prio";
               std::string two("a\0b", 3);
               m.addNLAttribute(1, static_cast<unsigned char>(0x11));
               m.addNLAttribute(2, static_cast<unsigned short>(0x2222));
               m.addNLAttribute(3, 0x33333333u);
               m.addNLAttribute(0x14004, 5, kBytes);
               m.addMsgPayload(4, kBytes);
               m.addNLAttribute(5, text);
               m.addNLAttribute(6, "");
               m.addNLAttribute(7, two);
               m.addNLAttribute(8, 0, nullptr);
               m.addNLAttribute(9, -1, kBytes);
               m.addNLAttribute(0x800a, 0, nullptr);
           }),
           .sends = sent({"a1a2a3a4", "0500 0100 11000000", "0600 0200 22220000", "0800 0300 33333333",
                          "0900 0440 a1a2a3a4 a5000000", "0900 0500 7072696f 00000000", "0500 0600 00000000",
                          "0800 0700 61006200", "0400 0800", "0400 0a80"})});
    check({.what  = "a nest counts its children, those of a nest inside it too, and nothing that follows",
           .call  = request([](M& m) {
               NestedAttrHandle outer, inner, empty;
               m.addNLAttribute(1, 0u);
               m.startNestedNLAttribute(2, outer);
               m.startNestedNLAttribute(3, inner);
               m.addNLAttribute(4, 0x44444444u);
               m.endNestedNLAttribute(inner);
               m.addNLAttribute(5, static_cast<unsigned char>(0x55));
               m.endNestedNLAttribute(outer);
               m.startNestedNLAttribute(6, empty);
               m.endNestedNLAttribute(empty);
           }),
           .sends = sent({"0800 0100 00000000", "1800 0280", "0c00 0380", "0800 0400 44444444", "0500 0500 55000000",
                          "0400 0680"})});
}

TEST(Building, GoesOnWithoutWhatCannotBeAdded)
{
    const LoggedBy attribute = core("addNLAttribute");
    const LogLine noPayload  = core("addMsgPayload").failure("adding payload failed");
    const auto outOfMemory   = [](int nth) { return failing(Call::Allocate, 0, nth); };
    const auto badHandle     = [](std::size_t index, const char* mistake) {
        return core("endNestedNLAttribute").failure("invalid attribute handle %zu: %s", index, mistake);
    };
    const Check check({.sends = sent({attr(3, 3)})});

    check({.what   = "no memory for a payload: the earlier one is gone, its length still counts",
           .given  = outOfMemory(2),
           .call   = request([](M& m) {
               m.addMsgPayload(4, kBytes);
               m.addMsgPayload(6, kBytes);
           }),
           .result = -1,
           .error  = EMSGSIZE,
           .sends  = {"14000000 3412 0500 8*00"},
           .log    = {noPayload, miscounted(16, 20)}});
    check({.what = "a negative length is a failed allocation",
           .call = request([](M& m) {
               m.addNLAttribute(3, 3u);
               m.addMsgPayload(-5, kBytes);
           }),
           .log  = {noPayload, kAcked}});
    check({.given = outOfMemory(1),
           .call  = request([](M& m) {
               m.addNLAttribute(9, 1u);
               m.addNLAttribute(3, 3u);
           }),
           .log   = {attribute.failure("adding attribute of type %d failed", 9), kAcked}});
    check({.what  = "no memory for a nest: its end does not touch the child in its place",
           .given = outOfMemory(1),
           .call  = request([](M& m) {
               NestedAttrHandle handle;
               m.startNestedNLAttribute(2, handle);
               m.addNLAttribute(3, 3u);
               m.endNestedNLAttribute(handle);
           }),
           .log   = {attribute.failure("adding attribute of type %d failed", 0x8002),
                     badHandle(SIZE_MAX, "no such attribute"), kAcked}});
    check({.what  = "of two nests the second has no memory: its end does not touch the first",
           .given = outOfMemory(2),
           .call  = request([](M& m) {
               NestedAttrHandle first, second;
               m.startNestedNLAttribute(2, first);
               m.endNestedNLAttribute(first);
               m.startNestedNLAttribute(4, second);
               m.addNLAttribute(3, 3u);
               m.endNestedNLAttribute(second);
           }),
           .sends = sent({"0400 0280", attr(3, 3)}),
           .log   = {attribute.failure("adding attribute of type %d failed", 0x8004),
                     badHandle(SIZE_MAX, "no such attribute"), kAcked}});
    check({.what = "handles of no nest: one past the last block, with a start behind the end, and an attribute's",
           .call = request([](M& m) {
               NestedAttrHandle past{99, 1}, plain{0, 0};
               m.addNLAttribute(3, 3u);
               m.endNestedNLAttribute(past);
               m.endNestedNLAttribute(plain);
           }),
           .log  = {badHandle(1, "no such attribute"), badHandle(0, "not a nested attribute"), kAcked}});
    check({.what   = "a value that the length field cannot hold is never sent whole",
           .call   = request([](M& m) {
               static unsigned char big[65532];
               m.addNLAttribute(1, sizeof big, big);
           }),
           .result = -1,
           .error  = EMSGSIZE,
           .sends  = {"10000100 3412 0500 8*00 |"},
           .log    = miscounted(16, 65552)});
    Check()({.given  = outOfMemory(2), // the scatter list
             .call   = request([](M& m) { m.addMsgPayload(4, kBytes); }),
             .result = -1,
             .error  = ENOMEM,
             .log    = core("messageSend").failure("msg allocation failed")});
}

TEST(Building, ServesOneRequest)
{
    const Check check;
    check({.what = "a second send has the length of the first in its header",
           .call =
               [] {
                   M msg;
                   msg.setNLMsgHeader(NETLINK_ROUTE, kMadeUp, kAck);
                   msg.addMsgPayload(4, kBytes);
                   return 10 * msg.messageTransact() + msg.messageTransact();
               },
           .result = -1,
           .error  = EMSGSIZE,
           .sends  = {"14000000 3412 0500 8*00 | a1a2a3a4", "24000000 3412 0500 8*00 | a1a2a3a4"},
           .log    = {kAcked, miscounted(20, 36)}});
    check({.what   = "a cleared payload still counts",
           .call   = request([](M& m) {
               m.addMsgPayload(4, kBytes);
               m.clearMsgPayload();
           }),
           .result = -1,
           .error  = EMSGSIZE,
           .sends  = {"14000000 3412 0500 8*00"},
           .log    = miscounted(16, 20)});
    check({.what = "cleared attributes are freed once", .call = [] {
               M msg;
               msg.addNLAttribute(1, 1u);
               msg.clearAttributes();
               return 0;
           }});
}

TEST(Building, WipesWhatItFrees)
{
    Kernel kernel;
    kernel.run(request([](M& m) {
        static unsigned char secret[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
        m.addMsgPayload(12, secret);
        m.addMsgPayload(12, secret);
        m.addNLAttribute(1, 8, secret);
    }));
    EXPECT_EQ(std::count(kernel.freedBlocks().begin(), kernel.freedBlocks().end(), Bytes(12)), 3);
}

TEST(BuildingDeathTest, EndsTheProcess)
{
    const auto killed = testing::KilledBySignal(SIGABRT);
    M msg;
    NestedAttrHandle later{8, 0};
    msg.addNLAttribute(NLA_F_NESTED, 0, nullptr);
    for (const int length : {-4, -1})
        EXPECT_EXIT(msg.addMsgPayload(length, kBytes), killed, "addMsgPayload.*overflow");
    EXPECT_EXIT(msg.addNLAttribute(1, INT_MAX, kBytes), killed, "addNLAttribute.*overflow");
    EXPECT_EXIT(msg.endNestedNLAttribute(later), killed, "endNestedNLAttribute.*overflow");

    Kernel kernel;
    kernel.fail(Call::AllocateOrThrow, 0); // the list of attributes
    EXPECT_EXIT(kernel.run(request([](M& m) { m.addNLAttribute(1, 1u); })), killed, "");
}
