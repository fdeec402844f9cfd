tandor_test(tandor_platform_tests
  SOURCES
    platform/ConnectionTest.cpp
    platform/DispatchQueueTest.cpp
    platform/EpollLoopTest.cpp
    platform/FlightPoolTest.cpp
    platform/FlowTest.cpp
    platform/Objects.cpp
    platform/PipePoolTest.cpp
    platform/StreamTest.cpp
    platform/Support.cpp
    platform/Surroundings.cpp
  LINKS tandor_linux)
