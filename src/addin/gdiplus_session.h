#pragma once
// GDI+ for the ribbon images: started once, on the first image, and shut down
// when COM is about to unload the DLL (GdiplusShutdown must not run in DllMain).
#include <windows.h>

#include <mutex>

class GdiplusSession {
public:
    static GdiplusSession& instance();

    // Starts GDI+ unless it runs already; false when it can't be started.
    bool ensureStarted();
    void shutdown();

private:
    std::mutex lock_;
    ULONG_PTR token_ = 0;
    bool started_ = false;
};
