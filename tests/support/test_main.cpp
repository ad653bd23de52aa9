// Every test program runs its tests in an OLE apartment, as Outlook's
// user-interface thread does.
#include <ole2.h>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    OleInitialize(nullptr);
    const int result = RUN_ALL_TESTS();
    OleUninitialize();
    return result;
}
