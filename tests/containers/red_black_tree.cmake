#Tests of the threaded red - black tree.Linked with the static archive : the
#unit tests look at the allocator 's chunk words to see where the tree' s
#blocks come from and that they go back.
kyrt_add_gtest(
    red_black_tree_test STATIC SOURCES red_black_tree_test.cpp red_black_tree_differential_test.cpp)
