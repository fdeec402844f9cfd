tandor_test(tandor_core_tests
  SOURCES
    tls/ClientHelloPeerTest.cpp
    tls/ClientHelloTest.cpp
  LINKS tandor_provider_core tandor_tls OpenSSL::SSL)
