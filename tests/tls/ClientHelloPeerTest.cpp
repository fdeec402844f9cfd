#include <memory>
#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include "tls/HelloSupport.h"

namespace tandor::test {
namespace {

template <auto function>
struct Calling {
  void operator()(auto* object) const noexcept { function(object); }
};

struct Seen {
  bool reached = false;  // the hello was understood as far as its extensions go
  std::optional<std::string> name;
};

int onServerName(SSL* ssl, int* /*alert*/, void* argument) {
  Seen& seen = *static_cast<Seen*>(argument);
  seen.reached = true;
  if (const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name); name != nullptr)
    seen.name = name;
  return SSL_TLSEXT_ERR_ALERT_FATAL;  // The name is all that is wanted of the handshake.
}

/// What an OpenSSL server makes of `hello`.
Seen seenByOpenSSL(const Bytes& hello) {
  static const std::unique_ptr<SSL_CTX, Calling<SSL_CTX_free>> context = [] {
    std::unique_ptr<SSL_CTX, Calling<SSL_CTX_free>> made(SSL_CTX_new(TLS_server_method()));
    SSL_CTX_set_min_proto_version(made.get(), TLS1_VERSION);
    SSL_CTX_set_security_level(made.get(), 0);
    SSL_CTX_callback_ctrl(made.get(), SSL_CTRL_SET_TLSEXT_SERVERNAME_CB,
                          reinterpret_cast<void (*)()>(onServerName));
    return made;
  }();
  Seen seen;
  SSL_CTX_set_tlsext_servername_arg(context.get(), &seen);
  const std::unique_ptr<SSL, Calling<SSL_free>> ssl(SSL_new(context.get()));
  BIO* input = BIO_new_mem_buf(hello.data(), static_cast<int>(hello.size()));
  SSL_set_bio(ssl.get(), input, BIO_new(BIO_s_mem()));
  SSL_accept(ssl.get());
  return seen;
}

TEST(ClientHelloPeer, RecordedHellosNameWhatOpenSSLSees) {
  int named = 0;
  int nameless = 0;
  for (const RecordedHello& recorded : recordedHellos()) {
    SCOPED_TRACE(recorded.client);
    const Seen seen = seenByOpenSSL(recorded.bytes);
    ASSERT_TRUE(seen.reached);
    const Parsed parsed = parse(recorded.bytes);
    EXPECT_EQ(parsed.name, seen.name);
    EXPECT_EQ(parsed.code, seen.name ? static_cast<std::int32_t>(seen.name->size()) : -2);
    EXPECT_TRUE(parsed.log.empty());
    ++(seen.name ? named : nameless);
  }
  EXPECT_GE(named, 10);
  EXPECT_GE(nameless, 3);
}

// OpenSSL checks more and so refuses more, but what it accepts must be read alike. The rest is for
// AddressSanitizer: a length that is off by one reads past the record when it is believed.
TEST(ClientHelloPeer, ChangedByteIsReadAsOpenSSLReadsIt) {
  int accepted = 0;
  for (const RecordedHello& recorded : recordedHellos()) {
    for (std::size_t index = 0; index < recorded.bytes.size(); ++index) {
      // The parser goes by the record; a hello made shorter than its record is the one difference.
      if (index >= 6 && index <= 8) continue;
      for (const int change : {-1, 1, 0x80}) {
        Bytes bytes = recorded.bytes;
        bytes[index] = static_cast<std::uint8_t>(bytes[index] + change);
        const Parsed parsed = parse(bytes);
        ASSERT_GE(parsed.code, -5);
        const Seen seen = seenByOpenSSL(bytes);
        if (!seen.reached) continue;
        ++accepted;
        ASSERT_EQ(parsed.name, seen.name) << recorded.client << " byte " << index << ": " << change;
      }
    }
  }
  EXPECT_GT(accepted, 10'000);
}

}  // namespace
}  // namespace tandor::test
