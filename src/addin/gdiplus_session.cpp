#include "addin/gdiplus_session.h"

#include "core/log.h"

#include <objidl.h>
#include <gdiplus.h>

namespace {

Logger logger("KVDragDropAddin");

} // namespace

GdiplusSession& GdiplusSession::instance()
{
    static GdiplusSession session;
    return session;
}

bool GdiplusSession::ensureStarted()
{
    std::lock_guard<std::mutex> guard(lock_);
    if (started_)
        return true;
    Gdiplus::GdiplusStartupInput input;
    const Gdiplus::Status status = Gdiplus::GdiplusStartup(&token_, &input, nullptr);
    started_ = status == Gdiplus::Ok;
    if (!started_)
        KV_ERROR(logger) << "GdiplusStartup failed, status=" << static_cast<int>(status);
    return started_;
}

void GdiplusSession::shutdown()
{
    std::lock_guard<std::mutex> guard(lock_);
    if (!started_)
        return;
    Gdiplus::GdiplusShutdown(token_);
    started_ = false;
    token_ = 0;
}
