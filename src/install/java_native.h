#pragma once
// The part of the Java Native Interface that the Java setup program's native
// methods use: JNI's types and calling convention, and the two functions of
// the JNIEnv table that read a Java string. The table is laid out as every
// JVM lays it out; only the slots used here are named.
#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>

#define JNICALL __stdcall

using jint = std::int32_t;
using jsize = jint;
using jboolean = std::uint8_t;
using jchar = std::uint16_t;

struct JavaObject;
using jobject = JavaObject*;
using jclass = jobject;
using jstring = jobject;

struct JniFunctionTable;
using JNIEnv = const JniFunctionTable*;

struct JniFunctionTable {
    void* slotsBeforeGetStringLength[164];
    jsize(JNICALL* GetStringLength)(JNIEnv* env, jstring string);
    void* slotsBeforeGetStringRegion[55];
    void(JNICALL* GetStringRegion)(JNIEnv* env, jstring string, jsize start, jsize length, jchar* buffer);
};
static_assert(offsetof(JniFunctionTable, GetStringLength) == 164 * sizeof(void*));
static_assert(offsetof(JniFunctionTable, GetStringRegion) == 220 * sizeof(void*));

// A Java string as a wide string; empty for a null reference.
inline std::wstring javaString(JNIEnv* env, jstring string)
{
    if (!env || !*env || !string)
        return {};
    const jsize length = (*env)->GetStringLength(env, string);
    if (length <= 0)
        return {};
    std::wstring text(static_cast<size_t>(length), L'\0');
    static_assert(sizeof(jchar) == sizeof(wchar_t));
    (*env)->GetStringRegion(env, string, 0, length, reinterpret_cast<jchar*>(text.data()));
    return text;
}
