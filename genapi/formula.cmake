# The formula compiler of SwissKnife and Converter nodes: a static library of
# its own, linked into kivgenapi, with its own tests.
add_library(kivformula STATIC
  ${CMAKE_CURRENT_LIST_DIR}/src/formula.cpp
  ${CMAKE_CURRENT_LIST_DIR}/src/formula_eval.cpp)
set_target_properties(kivformula PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(kivformula PUBLIC ${CMAKE_CURRENT_LIST_DIR}/src)

if(KIVCAM_BUILD_TESTS)
  kivcam_add_gtest(test_formula ${CMAKE_CURRENT_LIST_DIR}/tests/test_formula.cpp LIBS kivformula)
endif()

if(KIVCAM_BUILD_TESTS)
  # The concurrency case again under the label the ThreadSanitizer run picks.
  add_test(NAME test_formula_threads COMMAND test_formula --gtest_filter=FormulaThreads.*)
  set_tests_properties(test_formula_threads PROPERTIES LABELS threads)
endif()
