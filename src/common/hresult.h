#pragma once
// Early return on a failed HRESULT, the one helper of its kind in the project.
#include <windows.h>

#define RETURN_IF_FAILED(expr)                  \
    do {                                        \
        const HRESULT hrReturnIfFailed = (expr);\
        if (FAILED(hrReturnIfFailed))           \
            return hrReturnIfFailed;            \
    } while (0)
