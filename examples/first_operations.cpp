// Families, labels, addresses and GSO sizes on a real kernel, step by step: what is asked, and what the kernel answers.
// Changes the machine that it runs on; `./dev demo` gives it one to throw away.

#include <vesk/netlink.h>

#include <cstdio>
#include <cstdlib>

#include <arpa/inet.h>
#include <net/if.h>

static int surprises = 0;

// Says what is asked before it is, and what came of it; counts what came otherwise.
template <typename Operation>
static void step(const char* question, int expected, Operation operation)
{
    std::printf("\n* %s\n", question);
    const int result = operation();
    std::printf("  -> %d%s\n", result, result == expected ? "" : "   (this was not expected)");
    surprises += result == expected ? 0 : 1;
}

static void show(const char* command)
{
    std::printf("  $ %s\n", command);
    std::fflush(stdout);
    if (std::system(command) != 0)
        ++surprises;
}

static sockaddr_storage ip(int family, const char* text)
{
    sockaddr_storage address = {};
    address.ss_family        = static_cast<sa_family_t>(family);
    if (family == AF_INET)
        inet_pton(family, text, &reinterpret_cast<sockaddr_in&>(address).sin_addr);
    else
        inet_pton(family, text, &reinterpret_cast<sockaddr_in6&>(address).sin6_addr);
    return address;
}

int main()
{
    std::setvbuf(stdout, nullptr, _IONBF, 0); // between the lines of the log

    std::string device       = "demo0";
    sockaddr_storage prefix  = ip(AF_INET6, "2001:db8:1::");
    sockaddr_storage address = ip(AF_INET, "192.0.2.1");

    std::printf("A device to work on:\n");
    show("ip link add demo0 type dummy && ip -brief link show dev demo0");
    const unsigned int index = if_nametoindex(device.c_str());

    std::printf("\nGeneric netlink families\n");
    unsigned short id = 0;
    step("Which number has the family \"nlctrl\"?", 0, [&] {
        std::string family = "nlctrl";
        return Vesk::queryGenericNetlinkFamily(family, 2, &id);
    });
    std::printf("  it is %u\n", id);
    step("And the family \"nobody\"? There is none, so the kernel says errno 2.", -1, [&] {
        std::string family = "nobody";
        return Vesk::queryGenericNetlinkFamily(family, 2, &id);
    });

    std::printf("\nIPv6 address labels\n");
    step("Add the label 4711 for 2001:db8:1::/48 on demo0.", 0,
         [&] { return Vesk::addrlabelAdd(&prefix, 48, 4711, index); });
    show("ip addrlabel | grep 4711");
    step("Add it again. It exists, so the kernel says errno 17.", -1,
         [&] { return Vesk::addrlabelAdd(&prefix, 48, 4711, index); });
    step("Delete it.", 0, [&] { return Vesk::addrlabelDel(&prefix, 48, 4711, index); });
    show("! ip addrlabel | grep 4711");

    std::printf("\nWhat the platform's kernel accepts and a mainline kernel refuses\n");
    step("Put 192.0.2.1/24 on demo0. Mainline: errno 95.", -1,
         [&] { return Vesk::RTNetlinkAddressCfg(device, &address, 24, Vesk::AddressAdd, 0); });
    step("Limit the GSO size of demo0 to 16384 bytes. Mainline: errno 34.", -1,
         [&] { return Vesk::RTNetlinkSetGSOMaxSize(device, 16384); });

    std::printf("\nWhat never reaches the kernel\n");
    step("Limit the GSO size of a device that does not exist.", -1, [] {
        std::string unknown = "demo1";
        return Vesk::RTNetlinkSetGSOMaxSize(unknown, 16384);
    });

    std::printf(surprises == 0 ? "\nAll as expected.\n" : "\n%d steps went otherwise.\n", surprises);
    return surprises == 0 ? 0 : 1;
}
