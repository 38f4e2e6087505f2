# Tests of the module table, memory-map scans, back traces and loading.
