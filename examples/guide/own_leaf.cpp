// A host's own exception class below a family of the layer. Handlers for the family and for the root also catch it.

#include <OQLinux.h>
#include <stdio.h>

class SettingsFailedEx : public virtual OQCOsException
{
public:
    enum : unsigned int { cCode = 10001 };  // the layer's codes are below 1000
    explicit SettingsFailedEx(const char* acMessage)
        : OQCException(acMessage, cCode), OQCOsException(acMessage, cCode)  // the root is a virtual base
    {
    }
};

static void readSettings(const char* acPath)
{
    FILE* const lpFile = fopen(acPath, "r");
    if (NULL == lpFile) {
        char lBuffer[256];
        const char* const lpText = ClibStrerror(lBuffer, sizeof lBuffer);  // before the throw, which may change errno
        throw SettingsFailedEx(lpText);
    }
    fclose(lpFile);
}

int main()
{
    try {
        readSettings("/no/such/settings");
    } catch (const SettingsFailedEx& acrFailure) {
        printf("by its class: %s (%u)\n", acrFailure.what(), acrFailure.code());
    }
    try {
        readSettings("/no/such/settings");
    } catch (const OQCOsException& acrFailure) {
        printf("by its family: %s (%u)\n", acrFailure.what(), acrFailure.code());
    }
    try {
        readSettings("/no/such/settings");
    } catch (const OQCException& acrFailure) {
        printf("by the root: %s (%u)\n", acrFailure.what(), acrFailure.code());
    }
    return 0;
}
