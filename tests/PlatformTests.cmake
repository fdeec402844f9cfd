tandor_test(tandor_platform_tests
  SOURCES
    platform/ConnectionTest.cpp
    platform/ControlTest.cpp
    platform/EpollLoopTest.cpp
    platform/FlowTest.cpp
    platform/Objects.cpp
    platform/PathMonitorTest.cpp
    platform/PipePoolTest.cpp
    platform/RelayTest.cpp
    platform/Support.cpp
    platform/Surroundings.cpp
  LINKS tandor_provider_core tandor_linux nlohmann_json::nlohmann_json)
target_compile_definitions(tandor_platform_tests PRIVATE
  TANDOR_PROVIDER="$<TARGET_FILE:tandor-provider>")
add_dependencies(tandor_platform_tests tandor-provider)
