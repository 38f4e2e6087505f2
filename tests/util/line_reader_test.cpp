#include "gtest/gtest.h"
