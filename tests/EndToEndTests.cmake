# The daemon in network namespaces, with real programs. Each class of tests is a test of its own, so
# that one failure leaves the others their turn.
find_package(Python3 3.9 REQUIRED COMPONENTS Interpreter)

set(slowness 1)
if(TANDOR_SANITIZE)
  set(slowness 8)
endif()
set(environment
  TANDOR_PROVIDER=$<TARGET_FILE:tandor-provider>
  TANDOR_E2E_SLOWNESS=${slowness}
  PYTHONDONTWRITEBYTECODE=1)
set(classes
  routing.Modes
  routing.Outbound
  routing.Proxying
  relay.Bulk
  relay.Datagrams
  relay.DatagramsByTracking
  relay.Mass
  relay.Answers
  relay.Departures
  relay.AwkwardEnds
  control.ControlSocket
  lifecycle.UnderLoad
  lifecycle.Surroundings
  foreign.ForeignChanges
  foreign.ForeignChangesOfOlderTables
  rules.RoutingRules
  rules.RoutingRulesWithTracking
  identity.Identity
  identity.IdentityWithoutProbe)
if(TANDOR_HOST)
  list(APPEND environment TANDOR_PROGRAM=$<TARGET_FILE:tandor> TANDOR_VERSION=${PROJECT_VERSION})
  list(APPEND classes command.Commands command.Run)
endif()
foreach(class ${classes})
  add_test(NAME e2e.${class}
    COMMAND ${Python3_EXECUTABLE} -m unittest -v test_${class}
    WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/e2e)
  set_tests_properties(e2e.${class} PROPERTIES
    LABELS e2e
    TIMEOUT 300
    SKIP_REGULAR_EXPRESSION "the end-to-end tests need root"
    ENVIRONMENT "${environment}")
endforeach()
