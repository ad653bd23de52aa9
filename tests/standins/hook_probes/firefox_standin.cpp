// A program named firefox.exe that only waits: a running Firefox, as far as
// the process list can tell, for the test of the Firefox check. It ends by
// itself after 60 s should a test fail to end it.
#include <windows.h>

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int)
{
    Sleep(60000);
    return 0;
}
