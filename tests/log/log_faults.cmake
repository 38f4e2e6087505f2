# The log under file faults: uncreatable log paths, a full device and a
# small file system that fills up. Links the static archive for the memory
# tests' log record reader.
kyrt_add_gtest(log_faults_test STATIC SOURCES log_faults_test.cpp)
