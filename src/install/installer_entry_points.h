#pragma once
// The installers' exports of the add-in file (see installer_entry_points.cpp).
#include <windows.h>
#include <msi.h>

#include "install/java_native.h"

extern "C" {
UINT WINAPI Install(MSIHANDLE install);
UINT WINAPI Uninstall(MSIHANDLE install);
UINT WINAPI InstallAddin(MSIHANDLE install);
UINT WINAPI UninstallAddin(MSIHANDLE install);
void CALLBACK RunInstallW(HWND, HINSTANCE, LPWSTR commandLine, int);
void CALLBACK RunUninstallW(HWND, HINSTANCE, LPWSTR commandLine, int);
jint JNICALL Java_com_quembrook_com_KorvaneDll_nativeInstall(JNIEnv* env, jclass, jstring params);
jint JNICALL Java_com_quembrook_com_KorvaneDll_nativeUninstall(JNIEnv* env, jclass, jstring params);
void JNICALL Java_com_quembrook_com_KorvaneDll_nativeSetProductName(JNIEnv* env, jclass, jstring name);
void JNICALL Java_com_quembrook_com_KorvaneDll_nativeOpenLogFile(JNIEnv* env, jclass, jstring path, jint level,
                                                               jboolean append);
void JNICALL Java_com_quembrook_com_KorvaneDll_nativeCloseLogFile(JNIEnv* env, jclass);
}
