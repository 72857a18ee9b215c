// The identity of the host. A host may have only loopback addresses. The lookup then throws.

#include <OQCompanionSettings.h>
#include <OQLinux.h>
#include <stdio.h>

static void printAddress()
{
    unsigned int lAddress = 0;
    try {
        OsGetIpAddress(lAddress);  // one thread at a time: the resolver's result is shared
        printf("address: %u.%u.%u.%u\n", lAddress >> 24, lAddress >> 16 & 255, lAddress >> 8 & 255, lAddress & 255);
    } catch (const OQCGetIpAddressFailEx& acrFailure) {
        printf("no address: %s\n", acrFailure.what());
    }
}

int main()
{
    SetLogLevels(0);  // this program prints failures itself
    try {
        OQEOperatingSystem lSystem = OQOS_Linux;
        OQCString lRelease("");
        OsGetOsName(lSystem, lRelease);
        printf("system: %d\nrelease: %s\n", lSystem, lRelease.get());
        printAddress();
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "host: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
