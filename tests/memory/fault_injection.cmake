# Fault injection under the allocator: whole container and log workloads,
# each swept over every request number at which the underlying allocator
# refuses, in forked children. Links the static archive for the memory
# tests' log reader.
kyrt_add_gtest(fault_injection_test STATIC SOURCES fault_injection_test.cpp)
