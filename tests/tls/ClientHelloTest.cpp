#include <gtest/gtest.h>

#include "tls/ClientHello.h"
#include "tls/HelloSupport.h"

namespace tandor::test {
namespace {

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

TEST(ClientHello, IsIncompleteUntilTheRecordIsWhole) {
  for (const RecordedHello& recorded : recordedHellos()) {
    SCOPED_TRACE(recorded.client);
    Bytes grown;
    for (const std::uint8_t byte : recorded.bytes) {
      const Parsed parsed = parse(grown);
      ASSERT_EQ(parsed.code, -1) << "at " << grown.size();
      ASSERT_TRUE(parsed.log.empty());
      grown.push_back(byte);
    }
    EXPECT_TRUE(parse(grown).code > 0 || parse(grown).code == -2);
  }
}

TEST(ClientHello, IsMalformedWhenTheRecordEndsEarly) {
  for (std::size_t length = 0; length < message.size(); ++length) {
    const Bytes cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(length));
    const Parsed parsed = parse(record(cut));
    EXPECT_EQ(parsed.code, -5) << length;
    EXPECT_TRUE(parsed.log.empty());
  }
}

TEST(ClientHello, ServerNameIsDecodedUpToAZeroByte) {
  const auto nameOf = [](std::string_view name) {
    return serverName(Data::copying(helloNaming(sized(entry(0, name)))));
  };
  EXPECT_EQ(nameOf({"host\0inside", 11}), "host");
  EXPECT_EQ(nameOf("a\xFFz"), "a\xEF\xBF\xBDz");
  EXPECT_EQ(serverName(Data::copying(helloWith({}))), std::nullopt);
}

}  // namespace
}  // namespace tandor::test
