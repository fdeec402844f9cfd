#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <optional>

#include <gtest/gtest.h>

#include "platform/foundation/NSLog.h"
#include "support/Hello.h"
#include "tls/ClientHello.h"

namespace tandor::test {
namespace {

struct Parsed {
  std::int32_t code;
  std::optional<std::string> name;  // all of the declared length, checked to be terminated
  std::string log;                  // the lines, with a line feed between two
};

/// Parses a copy of `bytes` in a heap block of exactly their size, so that AddressSanitizer sees
/// any read past them. Fails the test when the name's pointer is written without success.
Parsed parse(const Bytes& bytes) {
  const auto block = std::make_unique<std::uint8_t[]>(bytes.size());
  std::ranges::copy(bytes, block.get());
  static std::string logged;
  logged.clear();
  setNSLogSink([](std::string_view message) {
    if (!logged.empty()) logged += '\n';
    logged += message;
  });
  char untouched = '\0';
  char* name = &untouched;
  const std::int32_t code = parse_tls_header(block.get(), bytes.size(), &name);
  setNSLogSink(nullptr);
  if (code < 0) {
    EXPECT_EQ(name, &untouched);
    return {code, std::nullopt, logged};
  }
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the parser hands over malloc's memory
  const std::unique_ptr<char, void (*)(char*)> owner(name, [](char* text) { std::free(text); });
  EXPECT_EQ(name[code], '\0');
  return {code, std::string(name, static_cast<std::size_t>(code)), logged};
}

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

const Bytes sni = extension(0, sized(entry(0, "host.example")));
const Bytes message = join({upToCompression, sized(sni)});
const Bytes hello = record(message);

TEST(ClientHello, AnswersAndLogs) {
  const char* const notTls = "Request did not begin with TLS handshake.";
  const char* const ssl2 = "Received SSL 2.0 Client Hello which can not support SNI.";
  const char* const ssl20 = "Received SSL 2.0 handshake which can not support SNI.";
  const char* const ssl0 = "Received SSL 0.255 handshake which can not support SNI.";
  const char* const ssl3 = "Received SSL 3.0 handshake without extensions";
  struct Case {
    const char* what;
    Bytes bytes;
    std::int32_t code;
    const char* name = "";
    const char* log = "";
  };
  const Case cases[] = {
      {"plain", hello, 12, "host.example"},
      {"TLS 1.2 record", record(message, 3, 3), 12, "host.example"},
      {"SSL 3.0 with extensions", record(message, 3, 0), 12, "host.example"},
      {"unknown future version", record(message, 255, 0), 12, "host.example"},
      {"second record behind", join({hello, hello}), 12, "host.example"},
      {"bytes behind the extensions", record(join({message, {1, 2}})), 12, "host.example"},
      {"record longer than given", record(message, 3, 1, 1), -1},
      {"four bytes", {0x80, 0, 1, 0}, -1},

      {"SSL 2.0 hello", {0x80, 0, 1, 0, 2}, -2, "", ssl2},
      {"SSL 2.0 other", {0x80, 0, 2, 0, 2}, -5, "", notTls},
      {"application data", {0x17, 3, 1, 0, 0}, -5, "", notTls},
      {"SSL 2.0 record", {22, 2, 0, 9, 9}, -2, "", ssl20},
      {"SSL 0.255 record", {22, 0, 255, 0, 0}, -2, "", ssl0},
      {"empty record", record({}), -5},
      {"server hello", record({2}), -5, "", "Not a client hello"},

      {"SSL 3.0 without extensions", record(upToCompression, 3, 0), -2, "", ssl3},
      {"TLS 1.0 without extensions", record(upToCompression), -5},
      {"future version without extensions", record(upToCompression, 4, 0), -5},
      {"SSL 3.0 with a stray byte", record(join({upToCompression, {0}}), 3, 0), -5},

      {"no extension", helloWith({}), -2},
      {"other extensions", helloWith(join({extension(10, {1}), extension(16, {})})), -2},
      {"type with a zero low byte", helloWith({1, 0, 0, 0}), -2},
      {"1 stray byte", helloWith(join({extension(10, {1}), {0}})), -5},
      {"3 stray bytes", helloWith(join({extension(10, {1}), {0, 0, 0}})), -5},
      {"other extension past the block", helloWith(extension(10, {1}, 1)), -5},
      {"server_name past the block", helloWith(extension(0, sized(entry(0, "host")), 1)), -5},
      {"block past the record", helloWith(sni, 1), -5},
      {"block that reaches into a second record", join({helloWith(sni, 1), hello}), -5},
      {"only the first server_name", helloWith(join({extension(0, {0, 0}), sni})), -2},

      {"body of no byte", helloNaming({}), -5},
      {"body of 1 byte", helloNaming({0}), -5},
      {"body of 2 bytes", helloNaming({0, 0}), -2},
      {"body of 3 bytes", helloNaming({0, 1, 0}), -5},
      {"body of 4 bytes", helloNaming({0, 2, 0, 0}), -5},
      {"lone empty name", helloNaming(sized(entry(0, ""))), -5},
      {"empty name before another", helloNaming(sized(join({entry(0, ""), entry(0, "b")}))), 0},
      {"shortest name", helloNaming(sized(entry(0, "a"))), 1, "a"},
      {"first of two names", helloNaming(sized(join({entry(0, "a"), entry(0, "b")}))), 1, "a"},
      {"list length unused", helloNaming(join({{255, 255}, entry(0, "host")})), 4, "host"},
      {"name past the body", helloNaming(sized(entry(0, "host", 1))), -5},
      {"name of another type past the body", helloNaming(sized(entry(7, "host", 1))), -5},
      {"another type first", helloNaming(sized(join({entry(200, "a"), entry(0, "b")}))), 1, "b",
       "Unknown server name extension name type: 200"},
      {"another type alone", helloNaming(sized(entry(1, "a"))), -2, "",
       "Unknown server name extension name type: 1"},
  };
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.what);
    const Parsed parsed = parse(expected.bytes);
    EXPECT_EQ(parsed.code, expected.code);
    EXPECT_EQ(parsed.name.value_or(""), expected.name);
    EXPECT_EQ(parsed.log, expected.log);
  }
  EXPECT_EQ(parse(helloNaming(sized(entry(0, {"host\0inside", 11})))).name,
            std::string("host\0\0\0\0\0\0\0", 11));
  EXPECT_EQ(parse_tls_header(nullptr, 0, nullptr), -3);
}

TEST(ClientHello, IsIncompleteUntilTheRecordIsWholeAndMalformedWhenItEndsEarly) {
  const auto expectOfEveryBeginning = [](const Bytes& whole, std::int32_t code, const auto& make) {
    Bytes beginning;
    for (const std::uint8_t byte : whole) {
      const Parsed parsed = parse(make(beginning));
      EXPECT_EQ(parsed.code, code) << beginning.size();
      EXPECT_TRUE(parsed.log.empty());
      beginning.push_back(byte);
    }
  };
  expectOfEveryBeginning(hello, -1, std::identity());
  expectOfEveryBeginning(message, -5, [](const Bytes& cut) { return record(cut); });
}

TEST(ClientHello, ServerNameIsDecodedUpToAZeroByte) {
  const auto nameOf = [](std::string_view name) {
    return serverName(Data::copying(helloNaming(sized(entry(0, name)))));
  };
  EXPECT_EQ(nameOf({"host\0inside", 11}), "host");
  EXPECT_EQ(nameOf("a\xFFz"), "a\xEF\xBF\xBDz");
  EXPECT_EQ(serverName(Data::copying(helloWith({}))), std::nullopt);
}

// OpenSSL checks more and so refuses more, but what it accepts must be read alike. The rest is for
// AddressSanitizer: a length that is off by one reads past the record when it is believed.
TEST(ClientHello, IsReadAsOpenSSLReadsIt) {
  int named = 0;
  int nameless = 0;
  int accepted = 0;
  // What real clients sent, as scripts/record-hellos wrote it down.
  for (const auto& client : std::filesystem::directory_iterator(TANDOR_FIXTURES "/hellos")) {
    SCOPED_TRACE(client.path());
    std::ifstream file(client.path(), std::ios::binary);
    const Bytes recorded(std::istreambuf_iterator<char>(file), {});
    const Seen seenWhole = seenByOpenSSL(recorded);
    const Parsed whole = parse(recorded);
    ASSERT_TRUE(seenWhole.reached);
    ASSERT_EQ(whole.name, seenWhole.name);
    ASSERT_TRUE(whole.name || whole.code == -2);
    ++(whole.name ? named : nameless);
    for (std::size_t index = 0; index < recorded.size(); ++index) {
      // The parser goes by the record; a hello made shorter than its record is the one difference.
      if (index >= 6 && index <= 8) continue;
      for (const int change : {-1, 1, 0x80}) {
        Bytes bytes = recorded;
        bytes[index] = static_cast<std::uint8_t>(bytes[index] + change);
        const Parsed parsed = parse(bytes);
        ASSERT_GE(parsed.code, -5);
        const Seen seen = seenByOpenSSL(bytes);
        if (!seen.reached) continue;
        ++accepted;
        ASSERT_EQ(parsed.name, seen.name) << "byte " << index << ": " << change;
      }
    }
  }
  EXPECT_GE(named, 10);
  EXPECT_GE(nameless, 3);
  EXPECT_GT(accepted, 10'000);
}

}  // namespace
}  // namespace tandor::test
