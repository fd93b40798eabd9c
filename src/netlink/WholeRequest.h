// Requests of IPsec are sent whole or not at all. A policy without its template would let the traffic pass in the
// clear, an SA without its hash would go unauthenticated.
#ifndef VESK_WHOLE_REQUEST_H
#define VESK_WHOLE_REQUEST_H

namespace Vesk {

class NetlinkMessage;

// `messageTransact`, unless the payload or an attribute could not be added (logged then): -1 with ENOMEM, and nothing
// is sent.
int transactWhole(NetlinkMessage& msg) noexcept;

} // namespace Vesk

#endif
