tandor_test(tandor_host_tests
  SOURCES
    host/ConfigurationTest.cpp
    host/ResolverTest.cpp
    host/StatusSocketTest.cpp
  LINKS tandor_host)
foreach(class Commands Run)
  add_test(NAME command.${class}
    COMMAND ${Python3_EXECUTABLE} -m unittest -v test_command.${class}
    WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/host)
  set_tests_properties(command.${class} PROPERTIES
    TIMEOUT 120
    ENVIRONMENT "TANDOR_PROGRAM=$<TARGET_FILE:tandor>;TANDOR_PROVIDER=$<TARGET_FILE:tandor-provider>;TANDOR_VERSION=${PROJECT_VERSION};PYTHONPATH=${CMAKE_CURRENT_SOURCE_DIR}/e2e;PYTHONDONTWRITEBYTECODE=1")
endforeach()
