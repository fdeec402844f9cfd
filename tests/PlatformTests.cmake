tandor_test(tandor_platform_tests
  SOURCES
    platform/ConnectionTest.cpp
    platform/DispatchQueueTest.cpp
    platform/EpollLoopTest.cpp
    platform/FlightPoolTest.cpp
    platform/FlowTest.cpp
    platform/IdentifierTest.cpp
    platform/PipePoolTest.cpp
    platform/StreamTest.cpp
    platform/Surroundings.cpp
  LINKS tandor_linux)
