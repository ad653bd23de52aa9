#include "core/outlook_application.h"

#include <mutex>

namespace {

std::mutex applicationLock;
Microsoft::WRL::ComPtr<IDispatch> application;

} // namespace

Microsoft::WRL::ComPtr<IDispatch> outlookApplication()
{
    std::lock_guard<std::mutex> guard(applicationLock);
    return application;
}

void setOutlookApplication(IDispatch* newApplication)
{
    Microsoft::WRL::ComPtr<IDispatch> old;
    {
        std::lock_guard<std::mutex> guard(applicationLock);
        old = application; // released outside the lock
        application = newApplication;
    }
}
