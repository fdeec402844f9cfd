tandor_test(tandor_host_tests
  SOURCES
    host/ConfigurationTest.cpp
    host/ResolverTest.cpp
    host/StatusSocketTest.cpp
  LINKS tandor_host)
