#pragma once

namespace tandor::test {

/// The whole program runs in a network namespace of its own, made before the first test: loopback
/// with 203.0.113.1, 198.51.100.1 and 2001:db8::1 besides its usual addresses, an interface
/// `void0` whose network, 203.0.113.128/25, swallows everything, and one, `down0`, that is down.
/// Names come from a file of its own.

/// Ends the test, before it could touch the machine's own network, unless that is so.
void requireOwnNamespace();

}  // namespace tandor::test
