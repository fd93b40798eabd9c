/**
 * @file
 * Changes the kernel's networking state over netlink, one synchronous call at a time.
 *
 * | name | what it is for |
 * |---|---|
 * | `NetlinkMessage` | a request of your own, and its exchange with the kernel |
 * | `queryGenericNetlinkFamily` | the number of a generic netlink family |
 * | `RTNetlink`... | addresses, GSO size, routes, policy rules, queueing disciplines |
 * | `addrlabel`... | IPv6 address labels |
 * | ...`XFRM`... | IPsec security associations (SAs) and policies, from a modem's record |
 *
 * ### Results and errno
 *
 * Operations return 0, or -1 with the reason in errno. (`RTNetlinkGetRoute` has them in `status`, and
 * `RTNetlinkGetRule` no value for -1.) Outputs are written on success only. Each operation lists its own errors, beside
 * these:
 *
 * | errno | reason | was the request that failed carried out? |
 * |---|---|---|
 * | EINVAL | an argument or a record is refused | no |
 * | ENODEV | no interface has that name (`RTNetlinkGetRule`: ENOENT) | no |
 * | EAFNOSUPPORT | the address or family is neither AF_INET nor AF_INET6 | no |
 * | EPERM, EACCES | CAP_NET_ADMIN is missing; SELinux forbids it (of routes: see `RTNetlinkGetRoute`) | no |
 * | EMFILE, ENFILE | too many descriptors are open | no |
 * | EPROTONOSUPPORT | the kernel lacks the netlink protocol, such as NETLINK_XFRM | no |
 * | ENOMEM | memory ran out, here or in the kernel | no |
 * | EMSGSIZE | the request is too long for the socket | no |
 * | EMSGSIZE | the reply is too long for a receive | perhaps |
 * | ENOBUFS | memory ran out in the kernel; its reply may be lost | perhaps |
 * | EINTR | a signal interrupted the wait for the reply (after 0: see `messageDump`) | perhaps |
 * | EBADMSG | the reply holds no complete acknowledgement or message | perhaps |
 *
 * After a success errno means nothing, unless the operation says otherwise.
 *
 * A failed call leaks no memory or socket. Operations of several requests say what stays in the kernel.
 *
 * @warning When memory runs out, operations other than those of IPsec may send an incomplete request and return 0: a
 * route may land in another table. The log says so.
 *
 * ### Where it may be called
 *
 * | in | may it? |
 * |---|---|
 * | any thread | Yes, in its network namespace. One `NetlinkMessage` belongs to one thread. |
 * | a callback | Yes, with other `NetlinkMessage` objects. |
 * | a signal handler | Never: it allocates and logs. |
 * | the child of `fork` | Yes, but in a process of several threads only after `exec`. Share no `NetlinkMessage`. |
 *
 * @warning Receives have no time-out. Signals interrupt them (EINTR), unless the handler has SA_RESTART:
 * docs/porting.md has a watchdog.
 *
 * ### What ends the process
 *
 * | what | how (SIGABRT: after a line on standard error, on Android the abort message; `LogMgr` gets none) |
 * |---|---|
 * | a null pointer, unless a parameter allows it | it is read |
 * | a record with a cipher key above 128 bytes, or an integrity key above 440 | SIGABRT: no room |
 * | a payload of -4 to -1 bytes, an attribute of 2^31 - 7 and more | SIGABRT: the padded length overflows |
 * | the end of a nested attribute whose handle starts behind the last attribute | SIGABRT: negative length |
 * | `parseAttributes` with a `len` that leaves out the padding of the last attribute | SIGABRT: negative length |
 * | `extack` for a message whose lengths contradict each other | SIGABRT: negative length |
 * | a reply of the kernel whose lengths do | SIGABRT: negative length |
 * | `addrlabelGenerate`, when the table has several labels and all are above 20 | SIGABRT: negative difference |
 * | an exception of a callback | all is `noexcept` |
 * | no memory for a container | all is `noexcept` |
 *
 * ### Log, keys, bytes
 *
 * `LogMgr` gets failures at level 4, steps and skipped rules at 3, fields of requests at 2, other skipped objects at 1.
 * Keys of SAs are never logged, and wiped from released memory. Numbers are in host byte order. SECURITY.md has the
 * limits and what is logged, docs/wire.md each request, docs/porting.md what kernels make of it.
 */
#ifndef VESK_NETLINK_H
#define VESK_NETLINK_H

#include "ipsec_sa_record.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <linux/netlink.h>
#include <sys/socket.h>

#define VESK_EXPORT __attribute__((visibility("default"))) ///< Exported.
#define VESK_LOCAL  __attribute__((visibility("hidden")))  ///< Not exported.

namespace Vesk {

/// @addtogroup request
/// @{

/// What a query callback returns. Others count as `NetlinkQueryContinue`.
enum VeskNetlinkQueryReturn {
    NetlinkQueryFailed   = 0, ///< Stop, the query failed.
    NetlinkQueryDone     = 1, ///< Stop, it was found.
    NetlinkQueryContinue = 2, ///< Show me the next message.
};

/// Sees one message of a query's reply, valid during the call only; of it `nlmsg_len` alone was checked.
using QueryCallback = VeskNetlinkQueryReturn(nlmsghdr* message, void* context);

/// The same for a dump.
using DumpCallback = void(nlmsghdr* message, void* context);

/// Links the start of a nested attribute to its end.
using NestedAttrHandle = std::pair<std::uint64_t, std::uint64_t>;

/**
 * One request: header, payload structure, attributes, and one exchange with the kernel.
 *
 *     NetlinkMessage msg;
 *     msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWADDRLABEL, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL);
 *     msg.addMsgPayload(sizeof entry, &entry);
 *     msg.addNLAttribute(IFAL_LABEL, label);
 *     msg.addNLAttribute(IFAL_ADDRESS, 16, &address);
 *     return msg.messageTransact();
 *
 * @warning An object serves one request: do not send it twice.
 * @warning Building reports no failure: only the log says that memory ran out.
 * @warning A kernel may have carried out half of what it refuses: RTM_NEWLINK, for example.
 */
class VESK_EXPORT NetlinkMessage {
public:
    NetlinkMessage() noexcept;
    virtual ~NetlinkMessage(); ///< Wipes and frees the request, closes the socket.
    NetlinkMessage(const NetlinkMessage&)            = delete;
    NetlinkMessage& operator=(const NetlinkMessage&) = delete;

    /**
     * Chooses protocol and header.
     * @param netlinkProtocol  NETLINK_ROUTE, ...
     * @param type             `nlmsg_type`
     * @param flags            `nlmsg_flags`; none is added
     */
    void setNLMsgHeader(int netlinkProtocol, unsigned short type, unsigned short flags) noexcept;

    /**
     * Copies the structure behind the header, in place of an earlier one, and pads it to 4 bytes.
     * @param len   bytes; -4 to -1 end the process, lower ones add nothing (logged)
     * @param data  `len` bytes; may be null for 0
     */
    void addMsgPayload(int len, void* data) noexcept;

    /// Wipes and frees the payload. Add another before sending.
    void clearMsgPayload() noexcept;

    /**
     * Appends an attribute, and pads it to 4 bytes.
     * @param type  `nla_type`, with flag bits; NLA_F_NESTED drops the value
     * @param len   bytes, 0 to 65,531; a negative one adds nothing
     * @param data  `len` bytes; may be null for 0
     */
    void addNLAttribute(int type, int len, void* data) noexcept;
    void addNLAttribute(int type, unsigned char value) noexcept;  ///< 1 byte.
    void addNLAttribute(int type, unsigned short value) noexcept; ///< 2 bytes, host order.
    void addNLAttribute(int type, unsigned int value) noexcept;   ///< 4 bytes, host order.
    void addNLAttribute(int type, char* text) noexcept;           ///< Up to and with the NUL.
    void addNLAttribute(int type, const char* text) noexcept;     ///< Up to and with the NUL.
    void addNLAttribute(int type, std::string& text) noexcept;    ///< All characters and a NUL.

    /**
     * Opens a nested attribute: what is added until its end belongs to it.
     * @param type    `nla_type`; NLA_F_NESTED is added
     * @param handle  receives what `endNestedNLAttribute` takes
     */
    void startNestedNLAttribute(int type, NestedAttrHandle& handle) noexcept;

    /// Closes a nested attribute: writes its length. A handle that names none is only logged.
    void endNestedNLAttribute(NestedAttrHandle& handle) noexcept;

    /// Wipes and frees the attributes. Afterwards only destroy the object.
    void clearAttributes() noexcept;

    /// Opens and binds the socket anew; exchanges do this. @return 0, or -1 with errno
    int openSocket() noexcept;

    /**
     * Sends the request as one datagram.
     * @return 0, or -1 with errno:
     *   - EBADF: no socket is open
     *   - EMSGSIZE: too long; or sent, but a length is wrong: the kernel may have acted
     */
    int messageSend() noexcept;

    /**
     * Sends the request and waits for its acknowledgement.
     * @warning Without NLM_F_ACK, 0 says only that it was sent.
     * @return 0, or -1 with errno: the kernel's, when it refused
     */
    int messageTransact() noexcept;

    /// Logs the kernel's text in a refusal (NLMSG_ERROR), if it is found, which is seldom.
    void extack(nlmsghdr* msg) noexcept;

    /// @return the kernel's last refusal as a negative errno, or 0. Prefer errno.
    int getKernelError() noexcept;

    /// Stores the arguments of `messageQuery()`.
    void setQueryCb(QueryCallback* cb, void* ctx, bool responseRequired) noexcept;

    /// `messageQuery` with what `setQueryCb` stored.
    int messageQuery() noexcept;

    /**
     * Sends the request and shows the messages of one reply datagram to a callback, until one satisfies it.
     * @warning Query without NLM_F_ACK: an acknowledgement before the reply fails it (EBADMSG).
     * @warning Without a reply it waits for ever.
     * @param cb                called for each message; null is refused (EINVAL)
     * @param ctx               passed to it; may be null
     * @param responseRequired  whether it fails when no message satisfied it
     * @return 0, or -1 with errno: the kernel's, when it refused; or
     *   - ECANCELED: the callback returned `NetlinkQueryFailed`
     *   - ENOENT: none satisfied it
     */
    int messageQuery(QueryCallback* cb, void* ctx, bool responseRequired) noexcept;

    /// Stores the arguments of `messageDump()`.
    void setDumpCb(DumpCallback* cb, void* ctx) noexcept;

    /// `messageDump` with what `setDumpCb` stored.
    int messageDump() noexcept;

    /**
     * Sends the request and shows all messages of the reply to a callback, until the kernel says that it is done.
     * @warning Without NLM_F_DUMP this may wait for ever: the kernel sends no end.
     * @warning After a result of 0, errno is 0, or EINTR when the table changed meanwhile: entries may be missing.
     * @warning Long datagrams, as of links with IFLA_EXT_MASK, are cut off. A cut between two messages does not show:
     * the rest is missing, and the result is 0.
     * @param cb,ctx  as for `messageQuery`
     * @return 0, or -1 with errno: the kernel's, when it refused or aborted
     */
    int messageDump(DumpCallback* cb, void* ctx) noexcept;

    /**
     * Indexes attributes by type, flag bits removed. The last one of a type wins.
     * @param first    the first of them, aligned to 4 bytes
     * @param map      receives pointers to them
     * @param len      bytes of all
     * @param maxType  higher types are skipped
     */
    static void parseAttributes(nlattr* first, std::unordered_map<int, nlattr*>& map, unsigned int len,
                                unsigned short maxType) noexcept;

private:
    VESK_LOCAL int openAndSend() noexcept;
    VESK_LOCAL int refusedBy(nlmsghdr* message, int error) noexcept;
    friend int transactWhole(NetlinkMessage& msg) noexcept; // the library's own

    // Order, types and size are part of the binary interface: daemons keep objects on their stacks.
    int protocol              = -1; // negative: not set yet
    int socketFd              = -1; // negative: closed
    int kernelError           = 0;
    unsigned payloadLength    = 0; // padded, as header.nlmsg_len until the first send
    QueryCallback* queryCb    = nullptr;
    void* queryCtx            = nullptr;
    bool requireResponse      = false;
    bool attributeMissing     = false; // one could not be allocated
    DumpCallback* dumpCb      = nullptr;
    void* dumpCtx             = nullptr;
    nlmsghdr header           = {}; // nlmsg_len: the padded payload before the send, the datagram after it
    unsigned char* payload    = nullptr;
    std::uint64_t attrsLength = 0;   // bytes of all blocks
    std::vector<nlattr*> attributes; // one owned block each: header, value, padding
};

/// @}

/// @addtogroup families
/// @{

/**
 * Looks up the number of a generic netlink family.
 * @param name     the family's name, at most 15 characters
 * @param version  of the controller's interface: 2
 * @param id       receives the number
 * @return 0, or -1 with errno:
 *   - ENOENT: no such family
 *   - EINVAL: the name is too long
 *   - ERANGE: likewise, and a NUL is among its first 16
 */
VESK_EXPORT int queryGenericNetlinkFamily(std::string& name, unsigned char version, unsigned short* id) noexcept;

/// @}

/// @addtogroup routes
/// @{

/// How `RTNetlinkAddressCfg` adds or replaces an address. Other values act like `AddressRenew`.
enum AddressLifetimeChange : int {
    AddressAdd           = 0, ///< Add, both lifetimes infinite.
    AddressDeprecate     = 1, ///< Replace: preferred lifetime 0, valid lifetime as given.
    AddressRenew         = 2, ///< Replace: both lifetimes infinite.
    AddressAddDeprecated = 3, ///< Add: preferred lifetime 0, valid lifetime as given.
};

/**
 * Puts an address on an interface, or replaces it, with its lifetimes.
 * @warning For the platform's kernel only: mainline refuses it.
 * @param device         interface name
 * @param address        AF_INET or AF_INET6
 * @param prefixLength   in bits, 0 to 32 or 128; sent modulo 256
 * @param change         what to do
 * @param validLifetime  in seconds, for the two deprecating changes
 * @return 0, or -1 with errno:
 *   - EOPNOTSUPP: mainline kernels
 */
VESK_EXPORT int RTNetlinkAddressCfg(std::string& device, sockaddr_storage* address, unsigned int prefixLength,
                                    AddressLifetimeChange change, unsigned int validLifetime) noexcept;

/**
 * Sets the largest packet that generic segmentation offload may build on an interface.
 * @warning For the platform's kernel only: mainline refuses it.
 * @param device      interface name
 * @param gsoMaxSize  in bytes
 * @return 0, or -1 with errno:
 *   - ERANGE: mainline kernels
 */
VESK_EXPORT int RTNetlinkSetGSOMaxSize(std::string& device, unsigned short gsoMaxSize) noexcept;

/**
 * Installs an IPv4 host route, of metric 100, through the gateway that the kernel uses for the destination now.
 * @warning After EEXIST, the route that exists may have another gateway and interface.
 * @param destination    address text
 * @param mark           firewall mark of the gateway's look-up; not of the route
 * @param family         AF_INET; IPv6 gateways are not accepted
 * @param table          routing table, 0 for the main one
 * @param outputIfIndex  index of the output interface, 0 for the gateway's
 * @return 0, or -1 with errno of `RTNetlinkGetRoute`, or:
 *   - EEXIST: the table has a route of this destination and metric
 *   - ENOENT: no IPv4 gateway leads there
 *   - ENETUNREACH: that interface is down, missing, or does not reach the gateway
 */
VESK_EXPORT int RTNetlinkAddRoute(std::string destination, unsigned int mark, unsigned char family, unsigned int table,
                                  unsigned int outputIfIndex) noexcept;

/**
 * Asks to remove the route that `RTNetlinkAddRoute` installed with the same arguments.
 * @warning The removal is not acknowledged: 0 says only that the request was sent. To know, dump the table.
 * @warning The gateway is looked up again. When it has changed, the route stays.
 * @return 0, or -1 with errno of `RTNetlinkGetRoute`, or:
 *   - ENOENT: no IPv4 gateway leads there
 */
VESK_EXPORT int RTNetlinkDeleteRoute(std::string destination, unsigned int mark, unsigned char family,
                                     unsigned int table, unsigned int outputIfIndex) noexcept;

/// The result of `RTNetlinkGetRoute`.
struct RouterAddressResult {
    std::string gateway; ///< Address text, or empty.
    int status;          ///< 0, also with an empty gateway; or -1 with errno.
};

/**
 * Asks the kernel for the gateway of the route that it would use.
 *
 * The gateway is empty, with status 0, when the route has none or one of IPv6, or names no table or existing interface.
 * @param destination  address text
 * @param mark         firewall mark of the look-up
 * @param family       AF_INET or AF_INET6
 * @return the gateway and 0, or -1 with errno:
 *   - ENETUNREACH: no route
 *   - EHOSTUNREACH, EACCES, EINVAL: a route of type unreachable, prohibit, blackhole
 */
VESK_EXPORT RouterAddressResult RTNetlinkGetRoute(std::string destination, unsigned int mark,
                                                  unsigned char family) noexcept;

/**
 * Finds the firewall mark of an interface's IPv4 rule: the last one with priority 16000 and table = index + 1000.
 * @param device  interface name
 * @return mark and mask, with errno as after `messageDump`; or no value, with errno:
 *   - ENOENT: no such interface or rule, or its mark or mask is 0
 *   - EINTR: a signal; or none was seen, but rules changed meanwhile
 */
VESK_EXPORT std::optional<std::pair<unsigned int, unsigned int>> RTNetlinkGetRule(std::string device) noexcept;

/**
 * Installs or removes a queueing discipline without options.
 * @param device     interface name
 * @param kind       "pfifo", "fq_codel", ...
 * @param parent     major and minor number, 0 for the root
 * @param handle     likewise: 0x10000 is "1:"
 * @param operation  0: add, 1: delete
 * @return 0, or -1 with errno:
 *   - EEXIST: there is a discipline
 *   - ENOENT: no such kind in the kernel, or no such parent
 *   - EINVAL: another operation; to delete, none of that kind and handle
 */
VESK_EXPORT int RTNetlinkTCQdisc(std::string& device, std::string& kind, unsigned int parent, unsigned int handle,
                                 unsigned char operation) noexcept;

/**
 * Installs or removes the platform's five-band "prio". Parameters as for `RTNetlinkTCQdisc`.
 * @warning To add it is for the platform's kernel only: mainline refuses it (EINVAL).
 * @return 0, or -1 with errno of `RTNetlinkTCQdisc`
 */
VESK_EXPORT int RTNetlinkTCPrio(std::string& device, unsigned int parent, unsigned int handle,
                                unsigned char operation) noexcept;

/**
 * Installs, changes or removes the platform's three-band "prio" with its flow-control switch.
 * @warning To add or change it is for the platform's kernel only: mainline refuses it (EINVAL).
 * @param device,parent,handle  as for `RTNetlinkTCQdisc`
 * @param enable     the switch: 0 is off
 * @param operation  0: add, 1: delete, 2: change
 * @return 0, or -1 with errno of `RTNetlinkTCQdisc`, or:
 *   - EEXIST: to change, it has another handle
 *   - ENOENT: to change, there is none
 */
VESK_EXPORT int RTNetlinkFlowControl(std::string& device, unsigned int parent, unsigned int handle,
                                     unsigned char enable, unsigned char operation) noexcept;

/// @}

/// @addtogroup labels
/// @{

/**
 * Adds an IPv6 address label.
 * @param address       AF_INET6
 * @param prefixLength  in bits, 0 to 128; sent modulo 256
 * @param label         any value but 0xffffffff
 * @param ifIndex       interface index, 0 for all interfaces
 * @return 0, or -1 with errno:
 *   - EEXIST: there is an entry for this prefix and interface
 *   - EINVAL: prefix of 129 to 255, no such interface, or label 0xffffffff
 *   - EOPNOTSUPP: an IPv4 address (mainline kernels)
 */
VESK_EXPORT int addrlabelAdd(sockaddr_storage* address, unsigned int prefixLength, unsigned int label,
                             unsigned int ifIndex) noexcept;

/**
 * Deletes an IPv6 address label. Mainline kernels do not compare the label. Parameters as for `addrlabelAdd`.
 * @return 0, or -1 with errno of `addrlabelAdd`, or:
 *   - ESRCH: no such entry
 */
VESK_EXPORT int addrlabelDel(sockaddr_storage* address, unsigned int prefixLength, unsigned int label,
                             unsigned int ifIndex) noexcept;

/**
 * Proposes a free label: the top of the first gap below a label above 20; without one, the largest plus `rand()`.
 * @warning Processes that do not seed `rand()` all propose the same label.
 * @warning Nothing is reserved, and `rand()` may yield 0: a label in use.
 * @warning Ends the process when all of several labels are above 20.
 * @param family      AF_INET6; not read for the default
 * @param useDefault  propose label 1, without asking the kernel
 * @param label       receives the proposal
 * @return 0, with errno as after `messageDump`; or -1 with errno:
 *   - EOPNOTSUPP: AF_INET (mainline kernels)
 *   - ENOSPC: none is free below the largest, which is 2^31 or more
 */
VESK_EXPORT int addrlabelGenerate(int family, bool useDefault, unsigned int* label) noexcept;

/**
 * Deletes the label of an address, and all entries with this label, prefix length and interface.
 * @warning 0 does not say that none is left. Kernels skip entries of tables above some 140: repeat, with the address of
 * one that is left. Labels 0 and 2 to 19 stay, and all when a longer prefix matches (docs/wire.md).
 * @param address       AF_INET6
 * @param prefixLength  in bits, as that of the entry
 * @param ifIndex       interface index, 0 for entries without one
 * @return 0, also when nothing was deleted or a deletion failed; or -1 with errno, and earlier deletions stay:
 *   - ESRCH: no entry matches the address
 *   - EINVAL: no such interface
 *   - EOPNOTSUPP: an IPv4 address (mainline kernels)
 */
VESK_EXPORT int addrlabelPurge(sockaddr_storage* address, unsigned int prefixLength, unsigned int ifIndex) noexcept;

/// @}

/// @addtogroup ipsec
/// @{

/**
 * Installs the two SAs of a record: TX and, when that succeeds, RX.
 * @warning Add policies before SAs, and remove them after: else traffic passes in the clear meanwhile.
 * @warning SAs have no replay window, no lifetime limits and no extended sequence numbers.
 * @warning Check the record as @ref ipsec_sa_record.h says: it may end the process, and kernels take integrity keys of
 * 0 bytes.
 * @warning When RX fails, refused or not, TX stays; -1 does not tell. Remove TX with a copy of the record whose
 * `spi_rx` is `spi_tx`: the record itself may match an RX of somebody else.
 * @param record      the SAs
 * @param technology  TRO_TECHNOLOGY_NAME_MARKED_RX_V01 gives RX an output mark
 * @param mark        output mark of TX; bit 0x20000 is always set
 * @param mask        its mask, likewise
 * @return 0, or -1 with errno:
 *   - EINVAL: the record or a key is refused; AH (mainline kernels)
 *   - EEXIST: there is an SA with this SPI, destination and protocol; its keys may be others
 *   - EPROTONOSUPPORT, ENOSYS, ENOENT: the kernel has no ESP; or not the algorithm
 */
VESK_EXPORT int addXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record,
                              tro_technology_name_enum_v01 technology, unsigned int mark, unsigned int mask) noexcept;

/**
 * Updates marks and UDP ports of a record's installed SAs. Parameters and checks as for `addXFRMStates`.
 * @warning Mainline kernels keep keys, algorithms and counters, and do not fail. For new keys, call `removeXFRMStates`
 * with the old record, then `addXFRMStates` with the new one. New SPIs need new policies, too (docs/tunnel.md).
 * @warning 0 does not prove that RX was updated, nor -1 that nothing was: after TX's update the last step alone
 * decides, RX's counters.
 * @warning The counters sent may be RX's for TX, and are 0 for RX. Mainline kernels ignore them. One that takes them
 * may repeat sequence numbers.
 * @return 0, or -1 with errno:
 *   - ESRCH: no such TX
 *   - EINVAL: as for `addXFRMStates`, or UDP encapsulation would begin or end
 */
VESK_EXPORT int updateXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record,
                                 tro_technology_name_enum_v01 technology, unsigned int mark,
                                 unsigned int mask) noexcept;

/**
 * Removes the SAs that have a record's protocol, addresses, and an SPI.
 * @warning 0 does not say that they are gone: a removal that failed is only logged. To know, dump XFRM_MSG_GETSA.
 * @warning With equal SPIs RX stays.
 * @param record  read without regard to the `_valid` flags
 * @return 0, also when none was there, with errno as after `messageDump`; or -1 with errno, and earlier removals stay
 */
VESK_EXPORT int removeXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record) noexcept;

/**
 * Installs the policies of one side of a tunnel: out, or in and then fwd.
 * @warning A policy uses SAs with the record's SPI only. New SPIs need new policies: with the old ones traffic stops.
 * @warning Prefixes "/x", "/" and "/08" (octal) are read as 0, and select everything. Of a number the low 8 bits count.
 * @warning Check the record, and that both selectors have one family: kernels may take others.
 *
 * When fwd fails, in stays.
 * @param record       the SAs to use
 * @param source       selector: "address", "address/prefix", or empty for any; at most 63 characters
 * @param destination  likewise; not both may be empty
 * @param protocol     IP protocol number, 0 for any
 * @param outbound     true: out; false: in and fwd, whose source is the peer's selector
 * @return 0, or -1 with errno:
 *   - EEXIST: there is a policy of this selector and direction; its template may be another
 *   - EINVAL: selector or record is refused; in transport mode, their families differ
 */
VESK_EXPORT int addXFRMPolicies(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record, std::string& source,
                                std::string& destination, unsigned char protocol, bool outbound) noexcept;

/**
 * Removes the policies of one side of a tunnel: out, or in and then fwd. Parameters as for `addXFRMPolicies`.
 * @warning Any policy of that selector and direction is removed, also one that somebody else made.
 *
 * When in fails, fwd is not tried. When fwd fails, in is gone: add both again first (EEXIST of fwd is expected).
 * @return 0, or -1 with errno:
 *   - ENOENT: no such policy
 */
VESK_EXPORT int removeXFRMPolicies(std::string& source, std::string& destination, unsigned char protocol,
                                   bool outbound) noexcept;

/**
 * Lets ICMPv6 to fe80::/64 bypass IPsec, before the policies of `addXFRMPolicies`.
 * @param direction  XFRM_POLICY_IN, XFRM_POLICY_OUT or XFRM_POLICY_FWD
 * @return 0, or -1 with errno:
 *   - EEXIST: it is there
 *   - EINVAL: another direction
 */
VESK_EXPORT int addXFRMPolicyEx(unsigned char direction) noexcept;

/**
 * Removes the policy of `addXFRMPolicyEx`. Parameter as there.
 * @return 0, or -1 with errno of `addXFRMPolicyEx`, or:
 *   - ENOENT: it is not there
 */
VESK_EXPORT int removeXFRMPolicyEx(unsigned char direction) noexcept;

/**
 * Moves SAs and policies to the new record's local address and UDP encapsulation: out, in, then fwd. SPIs and keys
 * stay. Without SAs it moves the policies alone.
 * @warning A failure may leave directions at different addresses: what was moved is moved back, but when that fails
 * (logged), remove and add all anew.
 * @warning Check the new address: one of unknown type fails where SAs exist (ENODATA), else leaves templates of zeros.
 * @warning Nobody else may change these SAs meanwhile. A packet may be lost while one is copied. Kernels up to 6.12
 * keep UDP encapsulation that the new record lacks.
 * @param oldRecord       the record as installed, with `encap_mode_valid`
 * @param newRecord       the same mode, protocol and peer
 * @param localSelector   this end's, as passed to `addXFRMPolicies`
 * @param remoteSelector  the peer's, likewise
 * @param protocol        likewise
 * @return 0, or -1 with errno of the step that failed first:
 *   - EINVAL: the records differ in mode, protocol or peer; one, or a selector, is refused
 *   - ENOENT: no such policy
 *   - ENODATA: the policy has no template of the old record
 */
VESK_EXPORT int migrateXFRMInfo(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& oldRecord,
                                tro_ipsec_static_sa_config_ex_info_ind_msg_v01& newRecord, std::string& localSelector,
                                std::string& remoteSelector, unsigned char protocol) noexcept;

/// @}

} // namespace Vesk

#endif
