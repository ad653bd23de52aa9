#pragma once
// A file whose contents Outlook offers as a plain stream (an attachment):
// its bytes are written unchanged.
#include <objidl.h>
#include <wrl/client.h>

#include "items/dd_item.h"

class AttachmentItem : public DDItem {
public:
    AttachmentItem(std::wstring fileName, IStream* stream);
    ~AttachmentItem() override;

    HRESULT save() override;
    HRESULT prepareFile() override;
    void writeJson(std::wostream& out, int indent) override;

protected:
    const char* typeName() const override { return "AttachmentItem"; }

private:
    Microsoft::WRL::ComPtr<IStream> stream_;
};
