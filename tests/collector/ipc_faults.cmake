# The command channel under IPC faults: leftovers of a killed run, a
# controller killed while it holds the area lock, and channel objects
# removed from outside. Killed processes are real forked children.
kyrt_add_gtest(ipc_faults_test STATIC SOURCES ipc_faults_test.cpp)
