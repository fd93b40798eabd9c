// How to test code that calls the library, without a kernel and without privileges: a small part of a daemon, and its
// test on the scripted kernel. Any test framework will do; this needs none.

#include <ScriptedKernel.h>
#include <vesk/netlink.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <linux/rtnetlink.h>

using namespace Vesk::Testing;

// The code under test: takes a smaller size when the platform's kernel refuses the one that is wanted. 0: none was set.
// (Mainline kernels refuse the request with ERANGE whatever the size is: there it yields 0.)
static unsigned short limitSegments(std::string device, unsigned short wanted)
{
    for (; wanted > 1500; wanted = static_cast<unsigned short>(wanted / 2)) {
        if (Vesk::RTNetlinkSetGSOMaxSize(device, wanted) == 0)
            return wanted;
        if (errno != ERANGE)
            break;
    }
    return 0;
}

static void expect(const char* what, bool holds)
{
    std::printf("%s %s\n", holds ? "ok  " : "FAIL", what);
    if (!holds)
        std::exit(1);
}

int main()
{
    ScriptedKernel kernel;             // takes the kernel's place on this thread
    kernel.addInterface("wlan0", 3);   // the only one that there is
    kernel.answer({refusal(-ERANGE)}); // to the first request; later ones are acknowledged

    const auto limit = kernel.run([] { return limitSegments("wlan0", 65535); });
    expect("half of what was wanted was taken", limit == 32767);
    const std::string second = message(RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK, // lengths are computed
                                       {"00 00 0000 03000000 8*00", attr(IFLA_GSO_MAX_SIZE, "ff7f")});
    expect("in the second request", kernel.requests().size() == 2 && kernel.requests()[1].datagram == hex(second));
    expect("both went to NETLINK_ROUTE", kernel.requests()[0].protocol == NETLINK_ROUTE);
    expect("the refusal is in the log", kernel.log().front().text == "messageTransact(): kernel reports error -34");
    expect("nothing was left open or unread", kernel.openSockets() + kernel.liveBlocks() + kernel.unreadReplies() == 0);

    kernel.fail(Call::Socket, EMFILE, kernel.count(Call::Socket) + 1); // the next one
    expect("without a socket nothing is set", limitSegments("wlan0", 2000) == 0 && kernel.requests().size() == 2);
}
