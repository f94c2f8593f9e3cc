# The contact sheet over several machines: the same sources with the other pool. Included there, where
# its libraries have been found.
if(NOT TARGET nqCluster)
    return()
endif()

add_executable(contact-sheet-cluster main.cpp options.cpp)
target_compile_definitions(contact-sheet-cluster PRIVATE CONTACT_SHEET_CLUSTER)
target_link_libraries(
    contact-sheet-cluster
    PRIVATE contactSheet nqSchedulerAPI::nqCluster nqCompileOptions CLI11::CLI11
            nlohmann_json::nlohmann_json)
