/**
 * @file
 * Changes the kernel's networking state over netlink, one synchronous call at a time.
 *
 *     NetlinkMessage               a request, built piece by piece, and its exchange with the kernel
 *     queryGenericNetlinkFamily    the number of a generic netlink family
 *     RTNetlink...                 addresses, GSO size, routes, policy rules, queueing disciplines
 *     addrlabel...                 IPv6 address labels
 *     ...XFRM...                   IPsec security associations and policies of a modem's record
 *
 * What holds for every operation:
 *
 * - **Results.** Configuring operations return 0, or -1 when an argument is refused or an exchange fails, unless it is
 *   said that a step is logged only. What is refused before the first request changes nothing; what an operation of
 *   several requests has changed when a later one is refused or fails is said with it. Outputs are written on success
 *   only.
 * - **After a failure** the library keeps nothing. The kernel is as it was when it refused a request, or when the
 *   request was not sent. It may have carried the request out when the receive failed or was interrupted, and when the
 *   reply held no whole answer ("no NL ACK received", "invalid NL error received").
 * - **Log.** Every failure is a line of level 4 through `LogMgr`, beginning with the name of the function that logs it.
 *   A refusal adds the kernel's errno and, in a transaction or a query, the kernel's own text where it is found in the
 *   reply. Keys of SAs are never logged: not those of a record, and not those that the kernel's refusal of an SA, sent
 *   through NETLINK_XFRM, echoes. Of a request of your own that carries keys over another protocol the echo is read for
 *   a text, and bytes of a key can look like one.
 * - **Exchange.** Each request goes out on a socket of its own, with sequence number 0, and the first answer on that
 *   socket decides. Receives have no time-out; a signal that interrupts one fails the operation, although the kernel
 *   may have carried it out. A receive takes as much as a page of the machine holds, and at most 8,192 bytes: that is
 *   what kernels put into one datagram of a dump.
 * - **Threads.** Any thread may call any operation at any time; calls share nothing but the logger and, for the label
 *   that `addrlabelGenerate` draws, the process's `rand()`, which nobody here seeds. A `NetlinkMessage` belongs to one
 *   thread.
 * - **Memory.** Where a block of a request cannot be allocated, the request goes out without that piece, for the kernel
 *   to judge. But no operation of IPsec sends such a request: it fails as when it is refused. A policy without its
 *   template would let the traffic pass in clear. A container that runs out of memory ends the process.
 * - **Exceptions.** None leaves the library. Arithmetic on lengths that would overflow ends the process (SIGABRT, after
 *   a line on standard error that names the operation).
 * - **Texts and pointers.** Pointer arguments must not be null; strings and addresses are only read. Values are in host
 *   byte order unless an argument says otherwise.
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

#define VESK_EXPORT __attribute__((visibility("default"))) ///< Part of the library's interface.
#define VESK_LOCAL  __attribute__((visibility("hidden")))  ///< A member that is not.

namespace Vesk {

/// @addtogroup request
/// @{

/// What a query callback says about the message that it was shown. 3, the only other value that the type holds, counts
/// as `NetlinkQueryContinue`.
enum VeskNetlinkQueryReturn {
    NetlinkQueryFailed   = 0, ///< Stop, the query failed.
    NetlinkQueryDone     = 1, ///< Stop, the answer was found.
    NetlinkQueryContinue = 2, ///< Show me the next message.
};

/// Sees one message of a query's reply. The message is valid during the call only. Must not throw.
using QueryCallback = VeskNetlinkQueryReturn(nlmsghdr* message, void* context);

/// Sees one message of a dump, valid during the call only. It may send requests of its own, on other objects. Must not
/// throw.
using DumpCallback = void(nlmsghdr* message, void* context);

/// Links the start of a nested attribute to its end: bytes of attributes before it, index of its header.
using NestedAttrHandle = std::pair<std::uint64_t, std::uint64_t>;

/**
 * One request: a header, one payload structure, a list of attributes, and one exchange with the kernel.
 *
 *     NetlinkMessage msg;
 *     msg.setNLMsgHeader(NETLINK_ROUTE, RTM_NEWADDRLABEL, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL);
 *     msg.addMsgPayload(sizeof entry, &entry);
 *     msg.addNLAttribute(IFAL_LABEL, label);
 *     msg.addNLAttribute(IFAL_ADDRESS, 16, &address);
 *     return msg.messageTransact();
 *
 * The payload goes first on the wire, whatever the order of the calls. The building operations return nothing: what
 * cannot be added is logged and missing from the request.
 *
 * An object serves exactly one request. Sending turns the header's length into that of the whole datagram, so that a
 * second send fails its length check, unless a new payload was added. The destructor frees every block and closes the
 * socket. Blocks are wiped before that as far as they are sent: not the value of an attribute that was added with
 * NLA_F_NESTED in its type, nor what an attribute of more than 65,531 bytes has beyond its cut length.
 */
class VESK_EXPORT NetlinkMessage {
public:
    NetlinkMessage() noexcept;
    virtual ~NetlinkMessage();
    NetlinkMessage(const NetlinkMessage&)            = delete;
    NetlinkMessage& operator=(const NetlinkMessage&) = delete;

    /**
     * Chooses protocol and header.
     * @param netlinkProtocol  NETLINK_ROUTE, NETLINK_XFRM or NETLINK_GENERIC
     * @param type             `nlmsg_type`
     * @param flags            `nlmsg_flags`, sent exactly as given: neither NLM_F_REQUEST nor NLM_F_ACK is added
     */
    void setNLMsgHeader(int netlinkProtocol, unsigned short type, unsigned short flags) noexcept;

    /**
     * Copies the fixed structure that follows the header; an earlier one is replaced. It is padded with zeros to a
     * multiple of 4 bytes.
     * @param len   bytes; -4 to -1 end the process, less than that is a failed allocation (logged, no payload)
     * @param data  `len` bytes
     */
    void addMsgPayload(int len, void* data) noexcept;

    /// Wipes and frees the payload. The header's length keeps counting it, so a send fails until another is added.
    void clearMsgPayload() noexcept;

    /**
     * Appends an attribute, padded with zeros to a multiple of 4 bytes.
     * @param type  `nla_type`, with its flag bits; only the header of one with NLA_F_NESTED is sent
     * @param len   bytes of the value; a negative one is skipped without a word, one above 65,531 does not fit the
     *              attribute's length field and makes the send fail, one of 2^31 - 7 and more ends the process
     * @param data  `len` bytes, not read when `len` is 0
     */
    void addNLAttribute(int type, int len, void* data) noexcept;
    void addNLAttribute(int type, unsigned char value) noexcept;  ///< A value of 1 byte.
    void addNLAttribute(int type, unsigned short value) noexcept; ///< A value of 2 bytes, host order.
    void addNLAttribute(int type, unsigned int value) noexcept;   ///< A value of 4 bytes, host order.
    void addNLAttribute(int type, char* text) noexcept;           ///< The text and its terminating NUL.
    void addNLAttribute(int type, const char* text) noexcept;     ///< The text and its terminating NUL.
    void addNLAttribute(int type, std::string& text) noexcept;    ///< All characters and a terminating NUL.

    /**
     * Opens a nested attribute: what is added until the matching end belongs to it. Nests may hold nests.
     * @param type    `nla_type`; NLA_F_NESTED is added
     * @param handle  written here, for `endNestedNLAttribute`
     */
    void startNestedNLAttribute(int type, NestedAttrHandle& handle) noexcept;

    /// Closes a nested attribute by writing its length. A handle that names no nest is logged, nothing changes; one
    /// whose start lies behind the end of the attributes ends the process. Of a nest of more than 65,535 bytes the
    /// length is cut to its low 16 bits, and sent so.
    void endNestedNLAttribute(NestedAttrHandle& handle) noexcept;

    /// Frees the attributes but leaves the list of them: the object may only be destroyed after this.
    void clearAttributes() noexcept;

    /**
     * Opens and binds the socket; the exchanges do it when it is not open yet. One that is open is closed first, unless
     * there is no protocol.
     *
     * | log | level | when |
     * |---|---|---|
     * | "NL protocol not yet set. Aborting" | 4 | `setNLMsgHeader` was not called, or with a negative protocol |
     * | "opening NL socket failed", "binding NL socket failed" | 4 | the system refuses; errno is in the line |
     * | "EXTACK not supported" | 3 | the kernel will not explain refusals; no failure |
     *
     * @return 0 or -1
     */
    int openSocket() noexcept;

    /**
     * Sends the request as one datagram, from the blocks where they lie. The socket must be open.
     *
     * | log | level | when |
     * |---|---|---|
     * | "msg allocation failed" | 4 | no memory for the list of blocks |
     * | "sending NL message failed" | 4 | the system refuses; errno is in the line |
     * | "sending full NL message failed: %d of %u" | 4 | the header's length is not that of the blocks |
     *
     * The lengths differ in a second send, after a payload was cleared or could not take an earlier one's place, with
     * an attribute that is too long, and with a value in an attribute that has NLA_F_NESTED in its type. A payload that
     * could not be added to a fresh object does not show: the request goes out without its structure.
     * @return 0 or -1
     */
    int messageSend() noexcept;

    /**
     * Sends the request and, if its flags carry NLM_F_ACK, reads one datagram for the acknowledgement: its first
     * NLMSG_ERROR decides. Without NLM_F_ACK nothing is read.
     *
     * | log | level | when |
     * |---|---|---|
     * | "not requesting ACK for NL message" | 2 | nothing is read; the result is 0 |
     * | "NL ACK received form kernel" | 3 | acknowledged |
     * | "kernel reports error %d" | 4 | refused; `getKernelError` says so too, and `extack` the kernel's text |
     * | "receiving NL ACK from kernel failed" | 4 | the system refuses; errno is in the line |
     * | "no NL ACK received from kernel", "invalid NL error received" | 4 | the reply holds no whole NLMSG_ERROR |
     *
     * The refusal of a request that is nearly as long as a receive is not whole, since it echoes the request.
     *
     * @return 0 when acknowledged (or not asked to be), -1 otherwise
     */
    int messageTransact() noexcept;

    /**
     * Logs the text of an extended acknowledgement, where the library's rule for its place finds it: the walk over the
     * attributes starts 12 bytes before their place, inside the echo of the request. An attribute that begins inside
     * the echoed payload of an SA's request, on an object for NETLINK_XFRM, is not logged.
     *
     * A message that says NLM_F_ACK_TLVS ends the process when it is shorter than 24 bytes, when the padding of its
     * last attribute is missing, and, without NLM_F_CAPPED, when the length in the echoed header is below 16 or above
     * the message's own length less 8.
     * @param msg  an NLMSG_ERROR
     */
    void extack(nlmsghdr* msg) noexcept;

    /// @return the error of the last whole NLMSG_ERROR that failed an exchange, a negative errno; 0 before there was
    /// one. A later success does not reset it, but a query that fails because it met an NLMSG_ERROR with error 0 does.
    /// The status of a dump's end is not kept.
    int getKernelError() noexcept;

    /// Stores the arguments of `messageQuery()`.
    void setQueryCb(QueryCallback* cb, void* ctx, bool responseRequired) noexcept;

    /// `messageQuery` with what `setQueryCb` stored.
    int messageQuery() noexcept;

    /**
     * Sends the request and shows the messages of exactly one reply datagram to the callback. An NLMSG_ERROR fails the
     * query even when its error is 0: send queries without NLM_F_ACK.
     * @param cb                called until it is satisfied
     * @param ctx               handed to the callback
     * @param responseRequired  whether a reply in which the callback found nothing is a failure
     *
     * | log, level 4 | when |
     * |---|---|
     * | "attempting to query without valid callback. Aborting" | `cb` is null |
     * | "receiving query response from kernel failed" | the system refuses; errno is in the line |
     * | "kernel reports error %d", "invalid NL error received" | the reply holds an NLMSG_ERROR, whole or not |
     * | "netlink query cb reports failure" | the callback returned `NetlinkQueryFailed` |
     * | "netlink query response not found" | a response is required, and no message satisfied the callback |
     *
     * @return 0 or -1
     */
    int messageQuery(QueryCallback* cb, void* ctx, bool responseRequired) noexcept;

    /// Stores the arguments of `messageDump()`.
    void setDumpCb(DumpCallback* cb, void* ctx) noexcept;

    /// `messageDump` with what `setDumpCb` stored.
    int messageDump() noexcept;

    /**
     * Sends the request and shows every message of every reply datagram to the callback, until NLMSG_DONE. An
     * interrupted dump is logged and goes on, unless its last message, NLMSG_DONE, alone says so; an NLMSG_ERROR with
     * error 0 is handed on like any other message. The kernel's text is not looked for. There is no time-out.
     *
     * | log | level | when |
     * |---|---|---|
     * | "attempting to dump without valid callback. Aborting" | 4 | `cb` is null |
     * | "receiving NL dump failed" | 4 | the system refuses; errno is in the line |
     * | "kernel reports errno [%d, %s]", "invalid NL ERR received" | 4 | an NLMSG_ERROR, whole or not |
     * | "NL dump reports errno [%d, %s]" | 4 | NLMSG_DONE with a negative status |
     * | "invalid dump done message" | 4 | NLMSG_DONE without a status |
     * | "NL dump was interrupted" | 3 | the table changed meanwhile; what is shown may be incomplete |
     *
     * @return 0; -1 without a callback, when the socket is not opened or the request not sent, when a receive fails,
     *         and on a refusal, an incomplete NLMSG_ERROR or NLMSG_DONE, or a negative status
     */
    int messageDump(DumpCallback* cb, void* ctx) noexcept;

    /**
     * Indexes a run of attributes by type, flag bits removed; the last one of a type wins.
     * @param first    where the run begins, aligned to 4 bytes
     * @param map      entries are set, none is removed; they point into the run
     * @param len      bytes of the run; an attribute that passes its end stops the walk, one whose padding does so ends
     *                 the process
     * @param maxType  attributes of a higher type are skipped
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
 * Looks the number of a generic netlink family up.
 *
 * Sends, as a query to NETLINK_GENERIC:
 *
 * | part                  | value |
 * | ---                   | --- |
 * | header                | GENL_ID_CTRL, NLM_F_REQUEST |
 * | `genlmsghdr`          | CTRL_CMD_GETFAMILY, `version` |
 * | CTRL_ATTR_FAMILY_NAME | `name` and its NUL |
 *
 * Mainline answers with CTRL_ATTR_FAMILY_ID, with ENOENT for an unknown name, or with EINVAL for one of 16 and more
 * characters, ERANGE where a NUL is among the first 16. A shorter name it reads up to a NUL inside. Logs "Netlink query
 * failed" after the reason.
 * @param name     the family's name, such as "nlctrl"
 * @param version  `genlmsghdr.version`
 * @param id       the number
 * @return 0, or -1: unknown family, failed exchange
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
 *
 * Sends, as a transaction on NETLINK_ROUTE:
 *
 * | part          | value |
 * | ---           | --- |
 * | header        | RTM_NEWADDR, NLM_F_REQUEST, NLM_F_ACK; NLM_F_REPLACE unless `change` adds |
 * | `ifaddrmsg`   | family 0 for both families, the low 8 bits of `prefixLength`, the device's index |
 * | IFA_LOCAL     | the address, 4 or 16 bytes |
 * | IFA_CACHEINFO | preferred lifetime 0 or infinite, valid lifetime `validLifetime` or infinite |
 *
 * The platform's kernel judges by the address; a mainline kernel refuses the family (EOPNOTSUPP). Logs
 * "no duch device", "invalid addr family", or "configuring address failed" after the reason.
 * @param device         interface name
 * @param address        AF_INET or AF_INET6; port, flow and scope are ignored
 * @param prefixLength   bits; the low 8 bits are sent
 * @param change         what to do
 * @param validLifetime  seconds, read for the two deprecating changes
 * @return 0, or -1: no such device, another family, refused by the kernel
 */
VESK_EXPORT int RTNetlinkAddressCfg(std::string& device, sockaddr_storage* address, unsigned int prefixLength,
                                    AddressLifetimeChange change, unsigned int validLifetime) noexcept;

/**
 * Sets the largest packet that generic segmentation offload may build on an interface.
 *
 * Sends, as a transaction on NETLINK_ROUTE:
 *
 * | part              | value |
 * | ---               | --- |
 * | header            | RTM_NEWLINK, NLM_F_REQUEST, NLM_F_ACK |
 * | `ifinfomsg`       | the device's index |
 * | IFLA_GSO_MAX_SIZE | `gsoMaxSize`, 2 bytes |
 *
 * A mainline kernel wants 4 bytes and refuses it (ERANGE). Logs "no such device", or "configuring gso max size failed"
 * after the reason; "configured gso max size" at level 1.
 * @param device      interface name
 * @param gsoMaxSize  bytes
 * @return 0, or -1: no such device, refused by the kernel
 */
VESK_EXPORT int RTNetlinkSetGSOMaxSize(std::string& device, unsigned short gsoMaxSize) noexcept;

/**
 * Installs a host route through the gateway that the kernel uses for the destination now.
 *
 * Looks the gateway up as `RTNetlinkGetRoute` does, then sends, as a transaction on NETLINK_ROUTE:
 *
 * | part         | value |
 * | ---          | --- |
 * | header       | RTM_NEWROUTE, NLM_F_REQUEST, NLM_F_ACK, NLM_F_EXCL, NLM_F_CREATE |
 * | `rtmsg`      | `family`, 32 or 128 bits, table 0, RTPROT_STATIC, RT_SCOPE_UNIVERSE, RTN_UNICAST |
 * | RTA_TABLE    | `table`, 4 bytes |
 * | RTA_DST      | the destination, 4 or 16 bytes |
 * | RTA_OIF      | `outputIfIndex`, 4 bytes |
 * | RTA_GATEWAY  | the gateway, 4 or 16 bytes |
 * | RTA_METRICS  | nested: RTAX_ADVMSS 1140, 4 bytes |
 * | RTA_PRIORITY | 100, 4 bytes |
 *
 * Mainline answers 0, or, for example, EEXIST. Logs "Invalid family", "inet_pton failed on ...", "Unable to get gateway
 * address", or "Failed to install ip route" after the reason.
 * @param destination    address text
 * @param mark           firewall mark of the look-up; not part of the route
 * @param family         AF_INET or AF_INET6; IPv6 gateways are not accepted, so only IPv4 routes can be installed
 * @param table          routing table
 * @param outputIfIndex  index of the output interface
 * @return 0, or -1: bad family or text, no gateway, refused by the kernel (a route that exists is refused)
 */
VESK_EXPORT int RTNetlinkAddRoute(std::string destination, unsigned int mark, unsigned char family, unsigned int table,
                                  unsigned int outputIfIndex) noexcept;

/**
 * Removes the route that `RTNetlinkAddRoute` installed; the arguments are the same. The gateway is looked up afresh:
 * where it has changed meanwhile, another route is described, the installed one stays, and the result is 0 all the
 * same.
 *
 * Sends the same request as RTM_DELROUTE with NLM_F_REQUEST alone: nobody waits for an answer, so a refusal (ESRCH on
 * mainline, when there is no such route) is not seen. Logs as there, with texts of its own.
 * @return 0 as soon as the request was sent, whether or not there was such a route; -1: bad family or text, no gateway,
 *         not sent
 */
VESK_EXPORT int RTNetlinkDeleteRoute(std::string destination, unsigned int mark, unsigned char family,
                                     unsigned int table, unsigned int outputIfIndex) noexcept;

/// The result of `RTNetlinkGetRoute`.
struct RouterAddressResult {
    std::string gateway; ///< Address text; empty when the kernel's route has no IPv4 gateway.
    int status;          ///< 0, also with an empty gateway; -1 on failure.
};

/**
 * Asks the kernel for the gateway of the route that it would use.
 *
 * Sends, as a query on NETLINK_ROUTE:
 *
 * | part     | value |
 * | ---      | --- |
 * | header   | RTM_GETROUTE, NLM_F_REQUEST |
 * | `rtmsg`  | `family`, 32 or 128 bits, RTM_F_LOOKUP_TABLE |
 * | RTA_DST  | the destination, 4 or 16 bytes |
 * | RTA_MARK | `mark`, 4 bytes |
 *
 * Mainline answers with the route, or, for example, with ENETUNREACH or EHOSTUNREACH. Logs "Invalid family", "inet_pton
 * failed on ...", or "Getting routes failed" after the reason. What makes a route unusable (no gateway, an IPv6
 * one) is logged by the callback `getRouterAddress`; it leaves the gateway empty and the status 0.
 * @param destination  address text
 * @param mark         firewall mark of the look-up
 * @param family       AF_INET or AF_INET6
 * @return status -1: bad family or text, unreachable destination, failed exchange
 */
VESK_EXPORT RouterAddressResult RTNetlinkGetRoute(std::string destination, unsigned int mark,
                                                  unsigned char family) noexcept;

/**
 * Finds the firewall mark of a device's IPv4 policy rule: priority 16000, table = interface index + 1000. The last such
 * rule that carries a mark and a mask wins; one without them is logged as a failure, though it is none.
 *
 * Sends, as a dump on NETLINK_ROUTE:
 *
 * | part           | value |
 * | ---            | --- |
 * | header         | RTM_GETRULE, NLM_F_REQUEST, NLM_F_DUMP |
 * | `fib_rule_hdr` | AF_INET |
 *
 * Works on mainline. Each rule of another priority is a line of level 3. Logs "Getting rules failed" or "Invalid
 * fwmark".
 * @param device  interface name
 * @return mark and mask; no value when the dump fails, no rule matches, or either of them is 0
 */
VESK_EXPORT std::optional<std::pair<unsigned int, unsigned int>> RTNetlinkGetRule(std::string device) noexcept;

/**
 * Installs or removes a queueing discipline without options.
 *
 * Sends, as a transaction on NETLINK_ROUTE:
 *
 * | part           | value |
 * | ---            | --- |
 * | header, add    | RTM_NEWQDISC, NLM_F_REQUEST, NLM_F_ACK, NLM_F_EXCL, NLM_F_CREATE |
 * | header, delete | RTM_DELQDISC, NLM_F_REQUEST, NLM_F_ACK |
 * | `tcmsg`        | the device's index, `handle`, `parent` or TC_H_ROOT |
 * | TCA_KIND       | `kind` and its NUL |
 *
 * Works on mainline for kinds that need no options; a second addition is EEXIST. Logs "no such device", "tc qdisc
 * invalid flag operation", or "tc qdisc transaction failed" after the reason.
 * @param device     interface name
 * @param kind       "pfifo", "fq_codel", ...
 * @param parent     0 for the root
 * @param handle     major and minor number, as in 0x10000 for "1:"
 * @param operation  0: add, 1: delete
 * @return 0, or -1: no such device, another operation, refused by the kernel
 */
VESK_EXPORT int RTNetlinkTCQdisc(std::string& device, std::string& kind, unsigned int parent, unsigned int handle,
                                 unsigned char operation) noexcept;

/**
 * Installs or removes the platform's five-band "prio" queueing discipline; arguments as for `RTNetlinkTCQdisc`.
 *
 * Sends what `RTNetlinkTCQdisc` sends for the kind "prio", and to add also:
 *
 * | part               | value |
 * | ---                | --- |
 * | TCA_OPTIONS        | nested: one attribute of type 2, 24 bytes |
 * | ... bytes 0 to 3   | 5, the number of bands |
 * | ... bytes 4 to 19  | the band of each packet priority: 3 4 4 4 3 4 2 2 4 3 2 1 0 0 0 0 |
 * | ... byte 20        | 1, the flow-control switch |
 * | ... bytes 21 to 23 | 0 |
 *
 * The block is the platform's own: a mainline kernel refuses the addition (EINVAL, with sch_prio loaded; EEXIST where
 * there is a discipline already). Logs as there.
 * @return 0, or -1: no such device, another operation, refused by the kernel
 */
VESK_EXPORT int RTNetlinkTCPrio(std::string& device, unsigned int parent, unsigned int handle,
                                unsigned char operation) noexcept;

/**
 * Installs, changes or removes the platform's three-band "prio" queueing discipline with its flow-control switch.
 *
 * Sends what `RTNetlinkTCPrio` sends; a change is RTM_NEWQDISC with NLM_F_REQUEST and NLM_F_ACK. Its options:
 *
 * | part           | value |
 * | ---            | --- |
 * | bytes 0 to 3   | 3, the number of bands |
 * | bytes 4 to 19  | the band of each packet priority: 1 2 2 2 1 2 0 0 1 1 1 1 1 1 1 1 |
 * | byte 20        | `enable` |
 * | bytes 21 to 23 | 1 |
 *
 * The block is the platform's own: a mainline kernel refuses addition and change (EINVAL, with sch_prio loaded; EEXIST
 * and ENOENT where there is a discipline already, or none to change). Logs as there, and the request at level 1.
 * @param device     interface name
 * @param parent     0 for the root
 * @param handle     major and minor number
 * @param enable     the switch; non-zero is on
 * @param operation  0: add, 1: delete, 2: change
 * @return 0, or -1: no such device, another operation, refused by the kernel
 */
VESK_EXPORT int RTNetlinkFlowControl(std::string& device, unsigned int parent, unsigned int handle,
                                     unsigned char enable, unsigned char operation) noexcept;

/// @}

/// @addtogroup labels
/// @{

/**
 * Adds an entry to the kernel's table of address labels.
 *
 * Sends, as a transaction on NETLINK_ROUTE:
 *
 * | part           | value |
 * | ---            | --- |
 * | header         | RTM_NEWADDRLABEL, NLM_F_REQUEST, NLM_F_ACK, NLM_F_EXCL, NLM_F_CREATE |
 * | `ifaddrlblmsg` | the address's family, the low 8 bits of `prefixLength`, `ifIndex` |
 * | IFAL_LABEL     | `label`, 4 bytes |
 * | IFAL_ADDRESS   | the address, 4 or 16 bytes |
 *
 * Mainline answers 0, EEXIST, or EINVAL for a prefix that is too long, an interface that does not exist, or the label
 * 0xffffffff. Logs "invalid addr family", or "modifying address label failed" after the reason.
 * @param address       AF_INET6; AF_INET is sent too, and refused by mainline kernels (EOPNOTSUPP)
 * @param prefixLength  bits; the low 8 bits are sent, the kernel judges them
 * @param label         the label
 * @param ifIndex       interface index, 0 for any
 * @return 0, or -1: another family, refused by the kernel (an entry that exists is refused)
 */
VESK_EXPORT int addrlabelAdd(sockaddr_storage* address, unsigned int prefixLength, unsigned int label,
                             unsigned int ifIndex) noexcept;

/**
 * Deletes an entry that `addrlabelAdd` added.
 *
 * Sends the same as RTM_DELADDRLABEL with NLM_F_REQUEST and NLM_F_ACK. Mainline answers 0, ESRCH when there is no such
 * entry, EOPNOTSUPP for IPv4, or EINVAL for a prefix that is too long or the label 0xffffffff; it finds the entry by
 * address, prefix length and interface, and does not compare the label. Arguments and log as there.
 * @return 0, or -1: another family, refused by the kernel
 */
VESK_EXPORT int addrlabelDel(sockaddr_storage* address, unsigned int prefixLength, unsigned int label,
                             unsigned int ifIndex) noexcept;

/**
 * Proposes a label: the value just below the first label above 20 that has none right before it; without such a gap the
 * largest label, or 20 where none is above that, plus `rand()`, which may be 0 and so propose the largest label itself.
 * A lone label above 20, with no other in the table, has no gap.
 *
 * Sends, as a dump on NETLINK_ROUTE:
 *
 * | part           | value |
 * | ---            | --- |
 * | header         | RTM_GETADDRLABEL, NLM_F_REQUEST, NLM_F_DUMP |
 * | `ifaddrlblmsg` | `family` |
 *
 * Works on mainline. The proposal is not reserved, and the random one not checked for use. A table whose lowest label
 * is above 20 and not the only one ends the process. Logs "invalid addr type", "generating unique label failed", or
 * "gathering list of currentl labels failed" after the reason. A label that two entries share is logged as a failure,
 * "inserting label %u failed", though it is none.
 * @param family      AF_INET6; AF_INET is sent too, and refused by mainline kernels (EOPNOTSUPP); not looked at for the
 *                    default
 * @param useDefault  propose label 1, without asking the kernel
 * @param label       the proposal
 * @return 0, or -1: another family, failed dump, no gap and a largest label of 2^31 or more
 */
VESK_EXPORT int addrlabelGenerate(int family, bool useDefault, unsigned int* label) noexcept;

/**
 * Deletes the entry of an address, and all entries of the same prefix length and interface that carry its label.
 *
 * The entry is the kernel's best match for the address. Where that is another one, of a longer prefix for example,
 * there is nothing to purge.
 *
 * Sends a query on NETLINK_ROUTE; if the label that it finds is 1, or 20 or more, the same request without the address
 * and with NLM_F_DUMP; and while that is read, a deletion as `addrlabelDel` does for each entry found:
 *
 * | part           | value |
 * | ---            | --- |
 * | header         | RTM_GETADDRLABEL, NLM_F_REQUEST |
 * | `ifaddrlblmsg` | the address's family, 32 or 128 bits, `ifIndex` |
 * | IFAL_ADDRESS   | the address, 4 or 16 bytes |
 *
 * Works on mainline. In a table of more than two datagrams (140 entries with pages of 4 KiB) a deletion makes the
 * kernel skip entries of the third: what was skipped keeps its label. Purge again with the address of an entry that
 * remains; with the first address nothing is found any more.
 *
 * Of an IPv6 prefix whole bytes are compared: an entry whose first whole bytes are the caller's is deleted by the
 * caller's address, whatever its last bits are, so that such a companion stays (ESRCH in the log).
 *
 * When the dump fails half-way, what was deleted stays deleted. Logs "invalid addr type", "querying label failed",
 * "dumping labels failed", or, for a single deletion, "purging address with label ... failed".
 * @param address       AF_INET6; AF_INET is sent too, and refused by mainline kernels (EOPNOTSUPP)
 * @param prefixLength  bits, compared as they are: one above 255 finds nothing
 * @param ifIndex       interface index, 0 for entries of no interface; mainline refuses one that does not exist
 *                      (EINVAL)
 * @return 0, also when there was nothing to purge or a single deletion failed (logged); -1: another family, failed
 *         query or dump
 */
VESK_EXPORT int addrlabelPurge(sockaddr_storage* address, unsigned int prefixLength, unsigned int ifIndex) noexcept;

/// @}

/// @addtogroup ipsec
/// @{

/**
 * Installs the two security associations of a record, TX then RX.
 *
 * Sends, for each, as a transaction on NETLINK_XFRM:
 *
 * | part                 | value |
 * | ---                  | --- |
 * | header               | XFRM_MSG_NEWSA, NLM_F_REQUEST, NLM_F_ACK |
 * | `xfrm_usersa_info`   | addresses, SPI, protocol, mode and family of the record; no limits; replay window 0 |
 * | ... flags            | XFRM_STATE_AF_UNSPEC, for TX also XFRM_STATE_NOPMTUDISC |
 * | XFRMA_ALG_CRYPT      | name and key of the cipher |
 * | XFRMA_ALG_AUTH_TRUNC | name, truncation and key of the hash |
 * | XFRMA_ENCAP          | UDP ports, when the record asks for it and has a port |
 * | XFRMA_SET_MARK       | TX: `mark`, with bit 0x20000 set; RX: 0x20002, for one technology only |
 * | XFRMA_SET_MARK_MASK  | TX: `mask`, with bit 0x20000 set |
 *
 * Mainline answers 0, EEXIST, or, for example, EINVAL for a key whose length does not fit its algorithm, and for AH,
 * which takes no cipher there. RX's fields are looked at after TX is installed: when they are refused, or RX fails, TX
 * stays installed; remove both for a clean slate.
 *
 * Logs the step that refuses the record and then "setting XFRM state ... failed", or "sending XFRM state failed" after
 * the reason; then "setting TX (RX) XFRM state failed". Each field is a line of level 2.
 *
 * Not refused, so that SAs may be installed which `removeXFRMStates` does not find again: an address of another type
 * than IPv4 and IPv6, which is logged and sent as zeros; two addresses of different families, which both go out under
 * the source's; an IPv6 address with an `addr_len` below 16; a protocol whose low byte alone is valid, such as 0x103.
 * @param record      the SAs; a cipher key above 128 bytes, or an integrity key above 440, ends the process, with TX
 *                    installed where it is RX's
 * @param technology  the radio technology
 * @param mark        output mark of TX; bit 0x20000 is added
 * @param mask        its mask; bit 0x20000 is added
 * @return 0, or -1: refused record, refused by the kernel
 */
VESK_EXPORT int addXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record,
                              tro_technology_name_enum_v01 technology, unsigned int mark, unsigned int mask) noexcept;

/**
 * Sends the installed SAs of a record its new values in place, then sequence counters. What is taken over is the
 * kernel's affair: see below. Arguments, and what is refused, as for `addXFRMStates`.
 *
 * Dumps the SAs with XFRM_MSG_GETSA, sends what `addXFRMStates` sends as XFRM_MSG_UPDSA for TX and RX, then for each:
 *
 * | part                | value |
 * | ---                 | --- |
 * | header              | XFRM_MSG_NEWAE, NLM_F_ACK, NLM_F_REPLACE; no NLM_F_REQUEST |
 * | `xfrm_aevent_id`    | destination, SPI, family and protocol of the SA as it was dumped |
 * | XFRMA_SET_MARK      | `mark`, as it is |
 * | XFRMA_SET_MARK_MASK | `mask`, as it is |
 * | XFRMA_REPLAY_VAL    | TX: the counters of the record's SA that was dumped last, be it RX's; RX: zeros |
 *
 * Where the dump showed TX with extended sequence numbers, TX's is XFRMA_REPLAY_ESN_VAL, 24 bytes. An SA that did not
 * match is named by zeros.
 *
 * A mainline kernel takes the marks and UDP ports of the update, and keeps keys, counters and a mark that the update
 * lacks; it answers EINVAL where UDP encapsulation begins or ends, ESRCH where the SA is not there, and 0 to the last
 * two requests, without carrying them out. A refused or failed TX update ends the operation; a failed dump, a refused
 * or failed RX update, and a failed TX counter update are logged only, so that the result may be 0 then. Nothing is
 * rolled back.
 *
 * Logs "failed to query XFRM"; the step that refuses an SA, or "sending XFRM state failed", and then "updating TX (RX)
 * XFRM state failed"; "sending XFRM state failed" and then "updating sequence TX (RX) failed".
 * @return the result of the TX update when that fails, else that of the RX counter update: 0 or -1
 */
VESK_EXPORT int updateXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record,
                                 tro_technology_name_enum_v01 technology, unsigned int mark,
                                 unsigned int mask) noexcept;

/**
 * Deletes the installed SAs whose protocol, SPI and both addresses are those of a record; others are left alone. With
 * equal SPIs in both directions RX's is never removed: an SA with that SPI is compared with TX's addresses only.
 *
 * Dumps the SAs with XFRM_MSG_GETSA and, for each match, while the dump is read, sends as a transaction on
 * NETLINK_XFRM:
 *
 * | part             | value |
 * | ---              | --- |
 * | header           | XFRM_MSG_DELSA, NLM_F_REQUEST, NLM_F_ACK |
 * | `xfrm_usersa_id` | destination, SPI, family and protocol of the SA |
 * | XFRMA_SRCADDR    | its source, 16 bytes |
 *
 * Works on mainline. Each SA that does not match is a line of level 1. When the dump fails half-way, what was deleted
 * stays deleted. Logs "deleting XFRM state failed" for a single deletion, "removing XFRM states failed" for the dump.
 * @return 0, also when nothing matched or a deletion failed (logged); -1: failed dump
 */
VESK_EXPORT int removeXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record) noexcept;

/**
 * Installs the policies of one side of a tunnel: out, or in and then fwd.
 *
 * Sends, for each, as a transaction on NETLINK_XFRM:
 *
 * | part                   | value |
 * | ---                    | --- |
 * | header                 | XFRM_MSG_NEWPOLICY, NLM_F_REQUEST, NLM_F_ACK |
 * | `xfrm_userpolicy_info` | the selector, priority 100, the direction, allow, no limits |
 * | XFRMA_TMPL             | addresses, SPI, protocol, mode and family of the SA; any algorithm |
 *
 * Works on mainline; a second addition is EEXIST. When fwd fails, in stays installed. Logs the step that refuses
 * selector or record and then "setting policy ... failed", or "sending XFRM policy failed" after the reason.
 *
 * The prefix is not checked, and its low 8 bits are sent: "/300" is 44, which mainline refuses for IPv4 (EINVAL), and
 * "/256", "/x" and "/" are 0, which selects everything. A text is cut at 63 characters. With two addresses of different
 * families the destination's goes out for both. Of the record's addresses one of unknown type is logged and sent as
 * zeros, and two of different families go out under the source's: mainline installs that, in transport mode only where
 * the source's family is the selector's (or else EINVAL).
 * @param record       the SAs that the traffic shall use
 * @param source       source of the selector, "address" or "address/prefix" (decimal, 0x.. or octal 0..), or empty
 * @param destination  destination of the selector, likewise; not both may be empty
 * @param protocol     IP protocol number, 0 for any
 * @param outbound     true: the out policy; false: in and fwd (the peer's selector is the source then)
 * @return 0, or -1: refused selector or record, refused by the kernel (a policy that exists is refused)
 */
VESK_EXPORT int addXFRMPolicies(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record, std::string& source,
                                std::string& destination, unsigned char protocol, bool outbound) noexcept;

/**
 * Deletes the policies that `addXFRMPolicies` installed with the same texts, protocol and side.
 *
 * Sends, for each, as a transaction on NETLINK_XFRM:
 *
 * | part                 | value |
 * | ---                  | --- |
 * | header               | XFRM_MSG_DELPOLICY, NLM_F_REQUEST, NLM_F_ACK |
 * | `xfrm_userpolicy_id` | the selector, the direction |
 *
 * Works on mainline; ENOENT when there is none. When in fails, fwd is not attempted; when fwd fails, in stays removed,
 * and the same call fails at in from then on: add both again first. Logs "setting policy selector failed", or "sending
 * XFRM policy delete failed" after the kernel's reason.
 * @return 0, or -1: refused selector, refused by the kernel
 */
VESK_EXPORT int removeXFRMPolicies(std::string& source, std::string& destination, unsigned char protocol,
                                   bool outbound) noexcept;

/**
 * Lets ICMPv6 to fe80::/64 past IPsec: a policy without template, of priority 10.
 *
 * Sends what `addXFRMPolicies` sends, without XFRMA_TMPL, with priority 10 and this selector: any source, destination
 * fe80::/64, protocol 58. Works on mainline; a second addition is EEXIST, an unknown direction EINVAL. Logs "sending
 * XFRM policy failed" after the kernel's reason.
 * @param direction  XFRM_POLICY_IN, XFRM_POLICY_OUT or XFRM_POLICY_FWD; others are sent, and refused by the kernel
 * @return 0, or -1: refused by the kernel (a policy that exists is refused)
 */
VESK_EXPORT int addXFRMPolicyEx(unsigned char direction) noexcept;

/// Deletes the policy of `addXFRMPolicyEx` with XFRM_MSG_DELPOLICY; ENOENT when there is none, EINVAL for an unknown
/// direction. Logs "sending XFRM policy delete failed" after the kernel's reason. @return 0, or -1: refused by the
/// kernel
VESK_EXPORT int removeXFRMPolicyEx(unsigned char direction) noexcept;

/**
 * Moves SAs and policies from an old local address to a new one, in place: out, in, fwd. When in or fwd fails, what was
 * moved is moved back by requests of the same kind, which can fail too (logged; it stays moved then), and which are
 * refused before they are sent when the old record's `encap_mode_valid` is 0. The caller must not change the same SAs
 * meanwhile.
 *
 * Sends, for each direction, as a transaction on NETLINK_XFRM:
 *
 * | part                 | value |
 * | ---                  | --- |
 * | header               | XFRM_MSG_MIGRATE, NLM_F_REQUEST, NLM_F_ACK |
 * | `xfrm_userpolicy_id` | the selector, the direction |
 * | XFRMA_MIGRATE        | old and new addresses, protocol, mode, any reqid, old and new family |
 * | XFRMA_ENCAP          | UDP ports, when the new record asks for it |
 *
 * Works on mainline; ENOENT when there is no such policy. SAs that have UDP encapsulation and are moved to a record
 * without, or moved back to one, keep it, with their ports, on kernels up to 6.12; on 7.2 they lose it. Two addresses
 * of different families are not refused: they go out under that of the local one. A new local address of unknown type
 * is sent as zeros (ENODATA). Logs "XFRM mode (protocol) has changed", "remote address has changed", the step that
 * refuses a record, or "sending XFRM migration failed" after the reason; then which direction failed, and whether
 * moving back did too.
 * @param oldRecord       the record as it was installed
 * @param newRecord       the record as it is now; mode, protocol and peer must be the same
 * @param localSelector   this end's selector, as given to `addXFRMPolicies`
 * @param remoteSelector  the peer's selector, likewise
 * @param protocol        IP protocol number, likewise
 * @return 0, or -1: records too different or refused, refused by the kernel, also where moving back failed
 */
VESK_EXPORT int migrateXFRMInfo(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& oldRecord,
                                tro_ipsec_static_sa_config_ex_info_ind_msg_v01& newRecord, std::string& localSelector,
                                std::string& remoteSelector, unsigned char protocol) noexcept;

/// @}

} // namespace Vesk

#endif
