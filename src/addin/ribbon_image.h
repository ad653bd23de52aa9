#pragma once
// The on/off button's image: PNG bytes named by the control's tag (a Base64
// registry value or a file beside the add-in) or taken from the add-in's own
// resources, made into an icon through GDI+ and handed to Office as a picture.
#include <windows.h>
#include <ocidl.h>

#include <string>

#include "common/unique_resource.h"
#include "dataobject/global_memory.h"

struct IconTraits {
    using Type = HICON;
    static HICON invalid() { return nullptr; }
    static void close(HICON icon) { ::DestroyIcon(icon); }
};
using UniqueIcon = UniqueResource<IconTraits>;

// PNG resources of the button in its two states.
inline constexpr WORD buttonImageOnResource = 203;
inline constexpr WORD buttonImageOffResource = 204;

// The control's "Tag" property; empty when it has none.
std::wstring getRibbonButtonTag(IDispatch* control);

// The whole file in a movable block; empty when it can't be opened or read.
UniqueGlobal loadFileIntoMem(const std::wstring& path);

// The bytes a button tag names: "reg:" + the key path of a registry value
// that holds "base64:" and the Base64 text, or the name of a file in the
// folder of `module`. Empty when the tag names nothing usable.
UniqueGlobal loadImageNamedByTag(const std::wstring& tag, HMODULE module);

// A copy of the resource `id` of type "PNG"; on failure the result says why.
HRESULT loadPngResource(HMODULE module, WORD id, UniqueGlobal& memory);

// The image as an icon; empty when GDI+ can't decode it. The block is used
// up: the stream made on it frees it.
UniqueIcon iconFromImage(UniqueGlobal memory);

// A picture that owns a copy of `icon`.
HRESULT pictureFromIcon(HICON icon, IPictureDisp** picture);
