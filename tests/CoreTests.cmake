tandor_test(tandor_core_tests
  SOURCES
    connection/LifecycleTest.cpp
    connection/RelayTest.cpp
    connection/RouteTest.cpp
    coresupport/SupportTest.cpp
    foundation/ValuesTest.cpp
    ipc/IPCClientTest.cpp
    ipc/LayoutTest.cpp
    provider/AdmissionTest.cpp
    provider/ConfigurationTest.cpp
    provider/DispatchTest.cpp
    provider/LifecycleTest.cpp
    tls/ClientHelloPeerTest.cpp
    tls/ClientHelloTest.cpp
  LINKS tandor_provider_core tandor_tls OpenSSL::SSL)
