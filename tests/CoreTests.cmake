tandor_test(tandor_core_tests
  SOURCES
    connection/ProxyConnectionTest.cpp
    coresupport/SupportTest.cpp
    foundation/ValuesTest.cpp
    ipc/IPCTest.cpp
    provider/ProviderTest.cpp
    tls/ClientHelloTest.cpp
  LINKS tandor_provider_core tandor_tls OpenSSL::SSL)
