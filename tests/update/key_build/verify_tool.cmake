# Injected into a scratch configuration of this project through
# CMAKE_PROJECT_CorvantaUpdater_INCLUDE (with BUILD_TESTING=OFF), so that a build made with
# another CORV_PUBLIC_KEY_FILE gets one small program that links the real corv_update.
# The libraries it names are defined later in the same configure run; CMake resolves them
# when it generates the build.
add_executable(corv-verify-manifest "${CMAKE_CURRENT_LIST_DIR}/corv_verify_manifest.cpp")
target_link_libraries(corv-verify-manifest PRIVATE corv_update Qt5::Core)
