# sova_add_qtest(NAME <name> GROUP <group> SOURCES <files...> LIBRARIES <targets...>)
# Builds tst_<name> and registers it with ctest as qtsovacore.<group>.<name>.
function(sova_add_qtest)
    cmake_parse_arguments(T "" "NAME;GROUP" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(tst_${T_NAME} ${T_SOURCES})
    set_target_properties(tst_${T_NAME} PROPERTIES AUTOMOC ON)
    target_link_libraries(tst_${T_NAME} PRIVATE Qt5::Test ${T_LIBRARIES})
    target_compile_definitions(tst_${T_NAME} PRIVATE
        SOVA_TEST_DATA_DIR="${PROJECT_SOURCE_DIR}/autotests/data")
    add_test(NAME qtsovacore.${T_GROUP}.${T_NAME} COMMAND tst_${T_NAME}
             WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
    set_tests_properties(qtsovacore.${T_GROUP}.${T_NAME} PROPERTIES
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;TMPDIR=${CMAKE_CURRENT_BINARY_DIR}")
endfunction()
