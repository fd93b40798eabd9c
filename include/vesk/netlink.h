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
 * Operations return 0, or -1 with the reason in errno. (`RTNetlinkGetRoute` has them in `status`; `RTNetlinkGetRule`
 * returns no value instead of -1.) Outputs are written on success only. Each operation lists its own errors. These are
 * general:
 *
 * | errno | reason | did the kernel act? |
 * |---|---|---|
 * | EINVAL | an argument, a text or a record is refused | no |
 * | ENODEV | no interface has that name | no |
 * | EAFNOSUPPORT | the address or family is neither AF_INET nor AF_INET6 | no |
 * | EPERM, EACCES | CAP_NET_ADMIN is missing; SELinux forbids it | no |
 * | EMFILE, ENFILE | too many descriptors are open | no |
 * | EPROTONOSUPPORT | the kernel lacks the netlink protocol, such as NETLINK_XFRM | no |
 * | ENOMEM | memory ran out, here or in the kernel | no |
 * | ENOBUFS | memory ran out in the kernel; its reply may be lost | perhaps |
 * | EINTR | a signal interrupted the wait for the reply | perhaps |
 * | EBADMSG | the reply holds no complete answer | perhaps |
 * | EMSGSIZE | the request is too long for the socket (no), or the reply for a receive | perhaps |
 *
 * After a success errno means nothing, except after a dump: see `messageDump`.
 *
 * After a failure the library keeps nothing. An operation that sends one request was carried out or not; one that sends
 * several says below what stays.
 *
 * @warning When memory runs out, operations other than those of IPsec may send a request that lacks a piece, and
 * succeed: a route then goes to another table, for example. The log says "adding attribute ... failed".
 *
 * ### Where it may be called
 *
 * | in | may it? |
 * |---|---|
 * | any thread | Yes, at any time. One `NetlinkMessage` belongs to one thread. |
 * | a callback | Yes, with other `NetlinkMessage` objects. |
 * | a signal handler | Never: it allocates and logs. |
 * | the child of `fork` | Yes, but in a process of several threads only after `exec`. Share no `NetlinkMessage`. |
 *
 * @warning Receives have no time-out. A signal interrupts them (EINTR), unless its handler has SA_RESTART.
 *
 * ### What ends the process
 *
 * | what | why (SIGABRT follows a line on standard error) |
 * |---|---|
 * | a null pointer, unless a parameter allows it | it is read |
 * | a record with a cipher key above 128 bytes, or an integrity key above 440 | SIGABRT: no room |
 * | a payload of -4 to -1 bytes, an attribute of 2^31 - 7 and more | SIGABRT: the padded length overflows |
 * | the end of a nest whose handle starts behind the last attribute | SIGABRT: negative length |
 * | parsing attributes that end before the padding of the last one | SIGABRT: negative length |
 * | `extack` for a message whose lengths contradict each other | SIGABRT: negative length |
 * | a reply of the kernel whose lengths do | SIGABRT: negative length |
 * | `addrlabelGenerate`, when the table has several labels and all are above 20 | SIGABRT: negative difference |
 * | an exception of a callback | all is `noexcept` |
 * | no memory for a container | all is `noexcept` |
 *
 * ### Log, keys, bytes
 *
 * `LogMgr` gets failures at level 4, steps at 3, fields of requests at 2, objects passed over at 1. Keys of SAs are
 * never logged, and wiped from released memory; SECURITY.md has the limits. Numbers are in host byte order.
 * docs/wire.md has each request byte by byte, docs/porting.md what kernels make of it.
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

/// What a query callback says. Any other value counts as `NetlinkQueryContinue`.
enum VeskNetlinkQueryReturn {
    NetlinkQueryFailed   = 0, ///< Stop, the query failed.
    NetlinkQueryDone     = 1, ///< Stop, what was asked for was found.
    NetlinkQueryContinue = 2, ///< Show me the next message.
};

/// Sees one message of a query's reply, which is valid during the call only.
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
 * @warning Building reports no failure: without memory a piece is missing, and only the log says so.
 *
 * A kernel may refuse a request of your own half-way: RTM_NEWLINK with an MTU and a bad master fails, and sets the MTU.
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
     * @param flags            `nlmsg_flags`, all of them: none is added
     */
    void setNLMsgHeader(int netlinkProtocol, unsigned short type, unsigned short flags) noexcept;

    /**
     * Copies the structure that follows the header, in place of an earlier one, and pads it to 4 bytes.
     * @param len   bytes; below -4 nothing is added
     * @param data  `len` bytes; may be null for 0
     */
    void addMsgPayload(int len, void* data) noexcept;

    /// Wipes and frees the payload. Add another before sending.
    void clearMsgPayload() noexcept;

    /**
     * Appends an attribute, and pads it to 4 bytes.
     * @param type  `nla_type`, with flag bits; of one with NLA_F_NESTED only the header is sent
     * @param len   bytes; above 65,531 the send fails; a negative one is not added, and not logged
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

    /// Closes a nested attribute: writes its length, modulo 65,536. A handle that names no nest is only logged.
    void endNestedNLAttribute(NestedAttrHandle& handle) noexcept;

    /// Wipes and frees the attributes. After this the object may only be destroyed.
    void clearAttributes() noexcept;

    /// Opens and binds the socket, in place of an earlier one; exchanges do this. @return 0, or -1 with errno
    int openSocket() noexcept;

    /**
     * Sends the request as one datagram.
     * @return 0, or -1 with errno:
     *   - EBADF: no socket is open
     *   - EMSGSIZE: too long; or sent, but its header says another length
     */
    int messageSend() noexcept;

    /**
     * Sends the request and waits for its acknowledgement.
     * @warning Without NLM_F_ACK in the flags, 0 says only that it was sent.
     * @return 0, or -1 with errno: the kernel's, when it refused
     */
    int messageTransact() noexcept;

    /// Logs the kernel's words for a refusal, an NLMSG_ERROR. Often none are found. Exchanges do this.
    void extack(nlmsghdr* msg) noexcept;

    /// @return the kernel's last refusal as a negative errno, or 0. A success does not reset it. Prefer errno.
    int getKernelError() noexcept;

    /// Stores the arguments of `messageQuery()`.
    void setQueryCb(QueryCallback* cb, void* ctx, bool responseRequired) noexcept;

    /// `messageQuery` with what `setQueryCb` stored.
    int messageQuery() noexcept;

    /**
     * Sends the request and shows the messages of one reply datagram to a callback, until it is satisfied.
     * @warning Query without NLM_F_ACK: an acknowledgement before the reply fails it (EBADMSG).
     * @param cb                called for each message
     * @param ctx               passed to it; may be null
     * @param responseRequired  whether it fails when no message satisfied it
     * @return 0, or -1 with errno: the kernel's, when it refused; or
     *   - EINVAL: `cb` is null
     *   - ECANCELED: the callback returned `NetlinkQueryFailed`
     *   - ENOENT: none satisfied it, and one is required
     *   - EMSGSIZE: the reply was cut off before
     */
    int messageQuery(QueryCallback* cb, void* ctx, bool responseRequired) noexcept;

    /// Stores the arguments of `messageDump()`.
    void setDumpCb(DumpCallback* cb, void* ctx) noexcept;

    /// `messageDump` with what `setDumpCb` stored.
    int messageDump() noexcept;

    /**
     * Sends the request and shows all messages of the reply to a callback, until the kernel says that it is done.
     * @warning Without NLM_F_DUMP in the flags this may wait for ever: the kernel sends no end.
     * @warning After a result of 0, errno is 0 when the dump was whole, and EINTR when the table changed meanwhile:
     * entries may be missing. Dump again.
     *
     * A datagram longer than a page, or than 8,192 bytes, is cut off; those of links can be. A cut between two messages
     * does not show: the rest is missing without a failure.
     * @param cb   called for each message
     * @param ctx  passed to it; may be null
     * @return 0, or -1 with errno: the kernel's, when it refused or broke off; or
     *   - EINVAL: `cb` is null
     *   - EMSGSIZE: the reply was cut off
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
 *   - EINVAL, ERANGE: the name is too long
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
 * @param prefixLength   in bits, 0 to 32 or 128
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
 * Installs an IPv4 host route through the gateway that the kernel uses for the destination now.
 * @param destination    address text
 * @param mark           firewall mark of the gateway's look-up; not of the route
 * @param family         AF_INET; IPv6 gateways are not accepted
 * @param table          routing table, 0 for the main one
 * @param outputIfIndex  index of the output interface, 0 for the gateway's
 * @return 0, or -1 with errno of `RTNetlinkGetRoute`, or:
 *   - EEXIST: the table has such a route
 *   - ENOENT: no IPv4 gateway leads there
 *   - ENETUNREACH: that interface is down, missing, or does not reach the gateway
 */
VESK_EXPORT int RTNetlinkAddRoute(std::string destination, unsigned int mark, unsigned char family, unsigned int table,
                                  unsigned int outputIfIndex) noexcept;

/**
 * Asks to remove the route that `RTNetlinkAddRoute` installed with the same arguments.
 * @warning 0 says that the request was sent, not that a route was removed: it is not acknowledged. To know, dump the
 * table.
 * @warning The gateway is looked up again. When it has changed, the installed route stays.
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
 * The gateway is empty, with status 0, when the route has none or one of IPv6, and when the reply names no table or no
 * interface that exists.
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
 *   - EINTR: none was seen, but rules changed meanwhile
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
 * @warning To add it is for the platform's kernel only: mainline refuses it.
 * @return 0, or -1 with errno of `RTNetlinkTCQdisc`, or:
 *   - EINVAL: mainline kernels, to add
 */
VESK_EXPORT int RTNetlinkTCPrio(std::string& device, unsigned int parent, unsigned int handle,
                                unsigned char operation) noexcept;

/**
 * Installs, changes or removes the platform's three-band "prio" with its flow-control switch.
 * @warning To add or change it is for the platform's kernel only: mainline refuses it.
 * @param device,parent,handle  as for `RTNetlinkTCQdisc`
 * @param enable     the switch: 0 is off
 * @param operation  0: add, 1: delete, 2: change
 * @return 0, or -1 with errno of `RTNetlinkTCQdisc`, or:
 *   - EINVAL: mainline kernels, to add or change
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
 * @param prefixLength  in bits, 0 to 128
 * @param label         any value but 0xffffffff
 * @param ifIndex       interface index, 0 for all interfaces
 * @return 0, or -1 with errno:
 *   - EEXIST: there is an entry for this prefix and interface
 *   - EINVAL: prefix too long, no such interface, or label 0xffffffff
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
 * Proposes a free label: one right below a used label above 20, or else `rand()` above the largest.
 * @warning Processes that do not seed `rand()` all propose the same label.
 * @warning Nothing is reserved. `rand()` may yield 0: the largest label itself, which is in use.
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
 * @warning 0 does not say that none is left: kernels skip entries where the table has more than about 140. Repeat, with
 * the address of one that is left. docs/wire.md says which others stay.
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
 * Installs the two SAs of a record: TX, then RX.
 * @warning Add policies first, then SAs; remove SAs first, then policies. Else traffic passes in clear meanwhile.
 * @warning Check the record first. The process ends, or kernels take what nobody means, unless
 *   - cipher keys have at most 128 bytes, and integrity keys the length of their hash: kernels take any, 0 included
 *   - both addresses have `ip_type` 4, or both 6 with `addr_len` 16
 *   - `ipsec_protocol` is 2 or 3: only its low 8 bits are looked at
 *   - `spi_tx` and `spi_rx` differ
 *
 * When RX fails, TX stays: `removeXFRMStates` removes it. SAs have no replay window.
 * @param record      the SAs
 * @param technology  one value gives RX an output mark
 * @param mark        output mark of TX; bit 0x20000 is added
 * @param mask        its mask, likewise
 * @return 0, or -1 with errno:
 *   - EINVAL: the record is refused, a key has the wrong length; AH (mainline kernels)
 *   - EEXIST: there is an SA with this SPI, destination and protocol; its keys may be others
 *   - EPROTONOSUPPORT, ENOSYS: the kernel has no ESP, or not the algorithm
 */
VESK_EXPORT int addXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record,
                              tro_technology_name_enum_v01 technology, unsigned int mark, unsigned int mask) noexcept;

/**
 * Updates marks and UDP ports of a record's installed SAs. Parameters and checks as for `addXFRMStates`.
 * @warning Mainline kernels keep keys, algorithms and counters, without a failure. To change keys, call
 * `removeXFRMStates` with the old record, then `addXFRMStates` with the new one; the policies stay.
 *
 * TX comes first; when it fails, nothing else is tried. A failure of RX is only logged, and the result may be 0.
 * @return 0, or -1 with errno:
 *   - ESRCH: no such SA
 *   - EINVAL: as for `addXFRMStates`, or UDP encapsulation would begin or end
 */
VESK_EXPORT int updateXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record,
                                 tro_technology_name_enum_v01 technology, unsigned int mark,
                                 unsigned int mask) noexcept;

/**
 * Removes the SAs that have a record's protocol, addresses, and an SPI.
 * @warning With equal SPIs in both directions RX stays.
 * @param record  read without regard to the `_valid` flags
 * @return 0, also when none was there or a removal failed (logged); or -1 with errno, and earlier removals stay
 */
VESK_EXPORT int removeXFRMStates(tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record) noexcept;

/**
 * Installs the policies of one side of a tunnel: out, or in and then fwd.
 * @warning Prefixes "/x", "/" and "/08" (octal) are read as 0, and select everything. Of a number the low 8 bits count.
 * @warning Check that both selectors have one family, and the record as for `addXFRMStates`: kernels may take others.
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
 * When in fails, fwd is not tried. When fwd fails, in is gone, and another call fails at in: add both again first.
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
 * Moves SAs and policies to a new local address: out, in, then fwd. Without SAs it moves the policies alone.
 * @warning A failure may leave directions at different addresses. What was moved is moved back; when that fails
 * (logged), remove all and add it anew.
 * @warning Check the new address as for `addXFRMStates`: one of unknown type fails (ENODATA) where SAs exist, but
 * leaves templates of zeros where none do.
 *
 * Nobody else may change these SAs meanwhile. Moving back needs `encap_mode_valid` in the old record.
 * @param oldRecord       the record as installed
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
