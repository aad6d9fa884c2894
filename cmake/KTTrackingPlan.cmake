# The tracking plan's code is generated at build time from its one table, into the build
# folder: the enumerations, EventSending's operations and EventSender's overrides, the
# operations called by name, and the plan as data for the tool and the tests.
find_package(Python3 COMPONENTS Interpreter REQUIRED)

set(KT_PLAN_TABLE ${PROJECT_SOURCE_DIR}/Sources/TrackingArchitecture/Plan/TrackingPlan.txt)
set(KT_PLAN_GENERATOR ${PROJECT_SOURCE_DIR}/scripts/generate-tracking-plan.py)
set(KT_GENERATED_DIR ${PROJECT_BINARY_DIR}/generated)
set(KT_PLAN_DIR ${KT_GENERATED_DIR}/KTAnalytics/TrackingArchitecture/Plan)
set(KT_PLAN_HEADERS
  ${KT_PLAN_DIR}/TrackingPlanEnumerations.h
  ${KT_PLAN_DIR}/EventSendingOperations.inc
  ${KT_PLAN_DIR}/EventSenderOperations.inc)
set(KT_PLAN_SOURCES
  ${KT_PLAN_DIR}/TrackingPlanEnumerations.cpp
  ${KT_PLAN_DIR}/EventSenderOperations.cpp
  ${KT_PLAN_DIR}/PlanCall.cpp
  ${KT_PLAN_DIR}/TrackingPlanCatalogueData.cpp)

add_custom_command(
  OUTPUT ${KT_PLAN_HEADERS} ${KT_PLAN_SOURCES} ${KT_PLAN_DIR}/TrackingPlanTypedCalls.inc
          ${KT_PLAN_DIR}/TrackingPlanEnumerationRows.inc
  COMMAND Python3::Interpreter ${KT_PLAN_GENERATOR} ${KT_PLAN_TABLE} ${KT_GENERATED_DIR}/KTAnalytics
  DEPENDS ${KT_PLAN_TABLE} ${KT_PLAN_GENERATOR}
  COMMENT "Generating the tracking plan"
  VERBATIM)
# Every target that includes EventSending.h reaches the generated headers through
# kt_TrackingArchitecture, so they must exist before any of those compiles.
add_custom_target(kt_tracking_plan DEPENDS ${KT_PLAN_HEADERS} ${KT_PLAN_SOURCES}
  ${KT_PLAN_DIR}/TrackingPlanTypedCalls.inc ${KT_PLAN_DIR}/TrackingPlanEnumerationRows.inc)

target_sources(kt_TrackingArchitecture PRIVATE ${KT_PLAN_SOURCES})
add_dependencies(kt_TrackingArchitecture kt_tracking_plan)
target_include_directories(kt_TrackingArchitecture PUBLIC $<BUILD_INTERFACE:${KT_GENERATED_DIR}>)
