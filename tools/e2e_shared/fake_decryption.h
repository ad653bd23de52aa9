#pragma once
// What decrypting an S/MIME mail does to its .msg file, as far as the add-in
// can tell: the copy reads as an ordinary mail. Stand-ins for Redemption and
// for Outlook's object model use this in place of real decryption.
#include <windows.h>

#include <string>

// Copies the .msg compound file as it stands (every stream and storage).
HRESULT copyMsgFile(const std::wstring& sourceMsgPath, const std::wstring& targetMsgPath);

// Copies the .msg and, when its message class contains ".SMIME"
// ("IPM.Note.SMIME", "IPM.Note.SMIME.MultipartSigned"), sets the class to
// "IPM.Note" in the copy; another class is left as it is. The source is only
// read. Fails with the storage error when the source is not a compound file.
HRESULT writeDecryptedCopy(const std::wstring& encryptedMsgPath, const std::wstring& decryptedMsgPath);
