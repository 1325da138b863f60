#include <krcommon/errorpage/MM404H5Manager.h>

namespace krcommon {

MM404H5ManagerDelegate::~MM404H5ManagerDelegate() = default;
MM404H5ManagerSubTitleClickDelegate::~MM404H5ManagerSubTitleClickDelegate() = default;

MM404H5ManagerSingletonException::MM404H5ManagerSingletonException()
    : platform::Exception("Sigleton", "Use +[MM404H5Manager sharedManager]") {}
MM404H5ManagerSingletonException::~MM404H5ManagerSingletonException() = default;

MM404H5Manager& MM404H5Manager::sharedManager() {
    static MM404H5Manager manager{Private{}};
    return manager;
}

MM404H5Manager::MM404H5Manager() { throw MM404H5ManagerSingletonException(); }

MM404H5Manager::MM404H5Manager(Private) { doInit(); }

void MM404H5Manager::doInit() {}

}  // namespace krcommon
