#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/Data.h"

namespace tandor {

/// Why parse_tls_header found no name; zero and above are lengths of names.
enum ClientHelloFailure : std::int32_t {
  clientHelloIncomplete = -1,   // the first record is not all there yet
  clientHelloWithoutName = -2,  // well-formed as far as it was read, but it names no host
  clientHelloNoResult = -3,     // nowhere to store the name
  clientHelloOutOfMemory = -4,  // the copy of the name could not be allocated
  clientHelloMalformed = -5,    // no ClientHello, or a length that runs past what encloses it
};

/// Finds the host name that a client asks for: the first host_name of the server_name extension
/// (RFC 6066, section 3) of the ClientHello (RFC 8446, section 4.1.2; RFC 5246, section 7.4.1.2)
/// in the first TLS record of `data`. Whatever follows that record is not looked at.
///
/// Returns the declared length of the name and stores a zero-terminated copy in `*hostname`, which
/// the caller releases with free(). A zero byte inside the name ends the copy early. On failure
/// returns a ClientHelloFailure and leaves `*hostname` as it was, or null when memory ran out.
/// Any thread.
[[nodiscard]] std::int32_t parse_tls_header(const std::uint8_t* data, std::size_t length,
                                            char** hostname) noexcept;

/// The host name that the ClientHello in `data`, the first bytes of a flow, asks for, possibly
/// empty; absent when parse_tls_header finds none.
[[nodiscard]] std::optional<std::string> serverName(const Data& data);

}  // namespace tandor
