#include <TarnSocketIO/CSignalHandler.h>
#include <gtest/gtest.h>
