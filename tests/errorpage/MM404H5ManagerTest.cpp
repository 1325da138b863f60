// The appearance manager is the only instance there is; what it holds is tested through the page.
#include <krcommon/errorpage/MM404H5Manager.h>

#include <gtest/gtest.h>

using namespace krcommon;

TEST(MM404H5Manager, IsASingletonThatCannotBeMadeDirectly) {
    EXPECT_EQ(&MM404H5Manager::sharedManager(), &MM404H5Manager::sharedManager());
    try {
        MM404H5Manager second;
        ADD_FAILURE() << "a second manager was made";
    } catch (const MM404H5ManagerSingletonException& e) {
        EXPECT_EQ(e.name() + " / " + e.reason(), "Sigleton / Use +[MM404H5Manager sharedManager]");
    }
}
