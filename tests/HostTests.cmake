tandor_test(tandor_host_tests
  SOURCES
    host/CommandTest.cpp
    host/ConfigurationTest.cpp
    host/ControlTest.cpp
    host/FakeProvider.cpp
    host/ResolverTest.cpp
    host/Support.cpp
  LINKS tandor_host util)  # util: openpty
# Stands in for the daemon beside a copy of the command.
add_executable(tandor_fake_provider host/FakeProvider.cpp host/FakeProviderMain.cpp)
target_include_directories(tandor_fake_provider PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tandor_fake_provider PRIVATE tandor_host tandor_warnings)
foreach(program tandor_host_tests tandor_fake_provider)
  target_compile_definitions(${program} PRIVATE TANDOR_VERSION="${PROJECT_VERSION}")
endforeach()
target_compile_definitions(tandor_host_tests PRIVATE
  TANDOR_PROGRAM="$<TARGET_FILE:tandor>"
  TANDOR_FAKE_PROVIDER="$<TARGET_FILE:tandor_fake_provider>"
  TANDOR_PROVIDER="$<TARGET_FILE:tandor-provider>")
add_dependencies(tandor_host_tests tandor tandor_fake_provider tandor-provider)
