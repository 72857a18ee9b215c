// How the lookups of the host's addresses and of its operating system end.

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>

#include "Outcome.h"

namespace
{

const Family cFamily(
    "Host identity", ".//MiscLinux",
    "The text of a failed lookup is the system's text for the number in `h_errno`. For a host without an address, the "
    "operation throws without logging `Left`.",
    {{"-H- Assertion [ lpHostEntry->h_addr_list != __null ] failed", "the resolver's entry has no list of addresses"},
     {"-H- No non-loopback IP Address configured on system",
      "the host's name resolves only to addresses 127.x.y.z, or to none; a throw follows, without `Left`; the process "
      "continues"},
     {"-E- Can't get local host entry, error: %s",
      "the host's own name cannot be resolved; the text is the system's text for the number in `h_errno`, so it may "
      "mislead"},
     {"-T- IP Address #%u - %s", "the operation examines this address of the host"},
     {"-T- Using %s as one of System's IP Addresses", "the address is appended"},
     {"-T- Using %s as the System's primary IP Address", "the address is the result"},
     {"-T- Going to determine Linux variant string", "a release file exists"},
     {"-T- Found OS Info: '%s'", "the first line of the release file"},
     {"-T- Not able to determine the OS variant information",
      "the release file cannot be read; the fixed text is reported"},
     {"-T- Entered", "the operation begins"},
     {"-T- Left", "the operation returns; after an error line: a throw follows"}});

/// A host with a name and these addresses, and the variables that callers of both functions pass. A null address is a
/// null entry. Two null entries end the list.
class Host
{
public:
    explicit Host(const std::vector<const char*>& acrAddresses) : mEntries(acrAddresses.size() + 2, nullptr)
    {
        for (size_t lIndex = 0; lIndex < acrAddresses.size(); ++lIndex) {
            if (nullptr != acrAddresses[lIndex]) {
                const in_addr_t lNumber = inet_addr(acrAddresses[lIndex]);
                mEntries[lIndex] = &mBytes[1 + 4 * lIndex];  // not aligned: a resolver need not align it
                memcpy(mEntries[lIndex], &lNumber, sizeof lNumber);
            }
        }
        mEntry.h_length = 1;  // not examined
        mEntry.h_addr_list = mEntries.data();
        mAddresses.append(7);
        nameObject("host", &mEntry);
        watchObject("address", &mAddress, sizeof mAddress);
        watchObject("list", &mAddresses, sizeof mAddresses);
        substitute::ClibGethostname.instead([this](char* apName, unsigned int aSize) {
            mIsNameCleared = std::all_of(apName, apName + aSize, [](char aByte) { return 0 == aByte; });
            memcpy(apName, "name", 4);
            return 0;
        });
        substitute::gethostbyname.instead([this](const char*) { return &mEntry; });
    }
    ~Host() { EXPECT_TRUE(mIsNameCleared); }

    void lookUp(const std::string& acrOperation)
    {
        if ("OsGetIpAddress" == acrOperation) {
            OsGetIpAddress(mAddress);
        } else {
            OsGetAllIpAddresses(mAddresses);
        }
    }

    hostent mEntry = {};
    unsigned int mAddress = 7;
    OQCList<unsigned int> mAddresses;

private:
    char mBytes[64] = {};
    std::vector<char*> mEntries;
    bool mIsNameCleared = true;
};

const std::string cLookedUp = R"(
    Entered
    ClibGethostname(local, 128) = 0
    gethostbyname("name") = host
)";

/// Defines a row of each of the two functions that look up the host.
#define OUTCOME_OF_BOTH(name, ...)                                                                               \
    struct name : Outcome {                                                                                      \
        explicit name(const char* acOperation) : Outcome(acOperation, cFamily, std::vector<int>{__VA_ARGS__}) {} \
        void row() override;                                                                                     \
    };                                                                                                           \
    [[maybe_unused]] const bool s##name =                                                                        \
        addOutcome("OsGetAllIpAddresses", #name, __FILE__, __LINE__,                                             \
                   [] { return new name("OsGetAllIpAddresses"); }) &&                                            \
        addOutcome("OsGetIpAddress", #name, __FILE__, __LINE__, [] { return new name("OsGetIpAddress"); });      \
    void name::row()

OUTCOME(OsGetAllIpAddresses, AppendsEachAddressThatIsNotLoopback)
{
    Host lHost({"127.0.1.1", "12.7.0.1", "127.0.0.2", "200.127.0.1"});
    bool lIsLocal = true;
    substitute::ClibnStrcmp.instead([&](const char* acText, const char* acPrefix, unsigned int aLength) {
        lIsLocal = lIsLocal && 0 == strcmp("local", place(acText).mText);
        inet_ntoa({htonl(0x08080808)});  // a host's logging function may also call it
        return substitute::ClibnStrcmp.real(acText, acPrefix, aLength);
    });
    mNeedsMemory = true;
    mWhen = "succeeds";
    mTrace = cLookedUp + R"(
        -T- "IP Address #%u - %s" "0", "127.0.1.1"
        -T- "IP Address #%u - %s" "1", "12.7.0.1"
        -T- "Using %s as one of System's IP Addresses" "12.7.0.1"
        list changes
        -T- "IP Address #%u - %s" "2", "127.0.0.2"
        -T- "IP Address #%u - %s" "3", "200.127.0.1"
        -T- "Using %s as one of System's IP Addresses" "200.127.0.1"
        list changes
        Left
    )";
    mStays = "the entries that the list had";
    run([&] { OsGetAllIpAddresses(lHost.mAddresses); });
    EXPECT_EQ((std::vector<unsigned int>{7, 0x0c070001, 0xc87f0001}),
              std::vector<unsigned int>(lHost.mAddresses.begin(), lHost.mAddresses.end()));
    EXPECT_TRUE(lIsLocal);
}

OUTCOME(OsGetIpAddress, StoresTheFirstAddressThatIsNotLoopback)
{
    Host lHost({nullptr, "127.0.1.1", "10.1.2.3", "192.168.0.1"});
    substitute::ClibMemcpy.show();
    substitute::ClibnStrcmp.show();
    substitute::ClibnStrcmp.instead([](const char* acText, const char* acPrefix, unsigned int aLength) {
        return 0 == substitute::ClibnStrcmp.real(acText, acPrefix, aLength) ? 0 : 1;
    });
    mWhen = "succeeds; a null entry in the first place is skipped";
    mTrace = cLookedUp + R"(
        ClibMemcpy(local, memory, 4) = local
        -T- "IP Address #%u - %s" "1", "127.0.1.1"
        ClibnStrcmp("127.0.1.1", "127.", 4) = 0
        ClibMemcpy(local, memory, 4) = local
        -T- "IP Address #%u - %s" "2", "10.1.2.3"
        ClibnStrcmp("10.1.2.3", "127.", 4) = 1
        address changes
        -T- "Using %s as the System's primary IP Address" "10.1.2.3"
        Left
    )";
    run([&] { OsGetIpAddress(lHost.mAddress); });
    EXPECT_EQ(0x0a010203U, lHost.mAddress);
}

OUTCOME_OF_ERRORS(OsGetIpAddress, LooksUpTheEmptyNameWhenTheNameCannotBeRead, EFAULT, EINVAL, ENAMETOOLONG, EPERM)
{
    Host lHost({"10.1.2.3"});
    substitute::ClibGethostname.fail(-1, error());
    mWhen = "`ClibGethostname` fails";
    mTrace = R"(
        Entered
        ClibGethostname(local, 128) = -1 ERROR
        gethostbyname("") = host
        -T- "IP Address #%u - %s" "0", "10.1.2.3"
        address changes
        -T- "Using %s as the System's primary IP Address" "10.1.2.3"
        Left
    )";
    mTells = "the operation looks up the empty name";
    run([&] { OsGetIpAddress(lHost.mAddress); });
}

OUTCOME_OF_BOTH(ThrowsWhenTheHostIsNotFound, HOST_NOT_FOUND, TRY_AGAIN, NO_RECOVERY, NO_DATA, NETDB_INTERNAL)
{
    Host lHost({});
    substitute::gethostbyname.instead([this](const char*) {
        h_errno = error();
        errno = EDOM;
        return static_cast<hostent*>(nullptr);
    });
    mWhen = "`gethostbyname` fails";
    mTrace = R"(
        Entered
        ClibGethostname(local, 128) = 0
        gethostbyname("name") = null
    )" + loggedFailure(R"(-E- "Can't get local host entry, error: %s" )", "OQCGetIpAddressFailEx 347");
    mStays = "the list, the address";
    run([&] { lHost.lookUp(mOperation); });
}

OUTCOME_OF_BOTH(EndsTheProcessWithoutAnAddressList, 0)
{
    Host lHost({});
    lHost.mEntry.h_addr_list = nullptr;
    mWhen = "the host's entry has no address list";
    mTrace = cLookedUp + "-H- \"Assertion [ %s ] failed\\n\" \"lpHostEntry->h_addr_list != __null\"\nexit status 1";
    mStays = "the list, the address";
    runInChild([&] { lHost.lookUp(mOperation); });
}

OUTCOME_OF_BOTH(ThrowsWhenThereAreOnlyLoopbackAddresses, 0)
{
    Host lHost({nullptr, "127.0.0.1", "127.255.1.2", nullptr, "10.1.2.3"});
    mWhen = "only loopback addresses; a null entry ends the list, except in the first place";
    mTrace = cLookedUp + R"(
        -T- "IP Address #%u - %s" "1", "127.0.0.1"
        -T- "IP Address #%u - %s" "2", "127.255.1.2"
        -H- "No non-loopback IP Address configured on system"
        throws OQCGetIpAddressFailEx 347 "No non-loopback IP Address configured on system"
    )";
    mStays = "the list, the address";
    run([&] { lHost.lookUp(mOperation); });
}

OUTCOME_OF_BOTH(ThrowsWhenTheListIsEmpty, 0)
{
    Host lHost({});
    mWhen = "an empty address list";
    mTrace = cLookedUp + R"(
        -H- "No non-loopback IP Address configured on system"
        throws OQCGetIpAddressFailEx 347 "No non-loopback IP Address configured on system"
    )";
    mStays = "the list, the address";
    run([&] { lHost.lookUp(mOperation); });
}

OUTCOME_OF_ALLOCATIONS(OsGetAllIpAddresses, ThrowsWithoutMemoryForAnEntryOfTheList, 2)
{
    Host lHost({"10.1.2.3", "10.1.2.4"});
    mWhen = "no memory for an entry of the list";
    mTrace = cLookedUp + R"(
        -T- "IP Address #%u - %s" "0", "10.1.2.3"
        -T- "Using %s as one of System's IP Addresses" "10.1.2.3"
        list changes
        -T- "IP Address #%u - %s" "1", "10.1.2.4"
        -T- "Using %s as one of System's IP Addresses" "10.1.2.4"
        throws OQCNoMemoryEx 2 "Out of Memory"
    )";
    mStays = "earlier addresses stay in the list";
    run([&] { OsGetAllIpAddresses(lHost.mAddresses); });
    EXPECT_EQ(2, lHost.mAddresses.size());
}

const char* const cFixedName = "Red Hat Enterprise Linux Server release 5.x";

/// A host with at most one release file, and the variables that the caller passes.
class System
{
public:
    explicit System(const char* acReleaseFile)
    {
        watchObject("family", &mFamily, sizeof mFamily);
        watchObject("name", &mName, sizeof(void*));  // the pointer to its text; padding follows
        substitute::ClibStat.instead([acReleaseFile](const char* acPath, struct stat*) {
            if (nullptr == acReleaseFile || 0 != strcmp(acReleaseFile, acPath)) {
                throw OQCClibStatFailedEx("missing", 173);
            }
            return 0;
        });
    }
    ~System() { EXPECT_EQ(1, mFamily); }

    OQEOperatingSystem mFamily = static_cast<OQEOperatingSystem>(0x77);
    OQCString mName = "old";
};

const std::string cFound = R"(
    Entered
    family changes
    ClibStat("/etc/oracle-release", local) = 0
    -T- "Going to determine Linux variant string"
)";
const std::string cNotFound = R"(
    Entered
    family changes
    ClibStat("/etc/oracle-release", local)
    ClibStat("/etc/enterprise-release", local)
    ClibStat("/etc/redhat-release", local)
)";

/// Sets the first line of the release file. A copy of the line needs two allocations.
void setFirstLine(const char* acLine)
{
    substitute::getFirstLineFromFile.instead([lLine = OQCString(acLine)](const OQCString&, OQCString& arLine) {
        arLine = lLine;
        return 0;
    });
}

OUTCOME(OsGetOsName, StoresTheFirstLineOfTheReleaseFile)
{
    System lSystem("/etc/redhat-release");
    setFirstLine(" release %s ");
    mNeedsMemory = true;
    mWhen = "a release file exists; the first existing file is read";
    mTrace = R"(
        Entered
        family changes
        ClibStat("/etc/oracle-release", local)
        ClibStat("/etc/enterprise-release", local)
        ClibStat("/etc/redhat-release", local) = 0
        -T- "Going to determine Linux variant string"
        getFirstLineFromFile("/etc/redhat-release", local) = 0
        -T- "Found OS Info: '%s'" " release %s "
        name changes
        Left
    )";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
    EXPECT_STREQ(" release %s ", lSystem.mName.get());
}

OUTCOME(OsGetOsName, StoresAnEmptyNameWhenTheReleaseFileIsEmpty)
{
    System lSystem("/etc/enterprise-release");
    setFirstLine("");
    mNeedsMemory = true;
    mWhen = "the release file is empty";
    mTrace = R"(
        Entered
        family changes
        ClibStat("/etc/oracle-release", local)
        ClibStat("/etc/enterprise-release", local) = 0
        -T- "Going to determine Linux variant string"
        getFirstLineFromFile("/etc/enterprise-release", local) = 0
        -T- "Found OS Info: '%s'" ""
        name changes
        Left
    )";
    mTells = "the name is empty";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
    EXPECT_STREQ("", lSystem.mName.get());
}

OUTCOME(OsGetOsName, StoresTheFixedTextWithoutAReleaseFile)
{
    System lSystem(nullptr);
    mNeedsMemory = true;
    mWhen = "there is no release file: `ClibStat` throws `OQCClibStatFailedEx`, which is caught";
    mTrace = cNotFound + "name changes\nLeft";
    mTells = "the name is the fixed text";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
    EXPECT_STREQ(cFixedName, lSystem.mName.get());
}

OUTCOME(OsGetOsName, StoresTheFixedTextWhenTheFirstLineCannotBeRead)
{
    System lSystem("/etc/oracle-release");
    substitute::getFirstLineFromFile.fail(42, EIO);
    mNeedsMemory = true;
    mWhen = "the first line of the release file cannot be read; no other file is tried";
    mTrace = cFound + R"(
        getFirstLineFromFile("/etc/oracle-release", local) = 42
        -T- "Not able to determine the OS variant information"
        name changes
        Left
    )";
    mTells = "the name is the fixed text";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
    EXPECT_STREQ(cFixedName, lSystem.mName.get());
}

OUTCOME(OsGetOsName, PassesAnyOtherExceptionOfTheLookForAFile)
{
    System lSystem(nullptr);
    substitute::ClibStat.instead([](const char*, struct stat*) -> int { throw OQCOpenFailedEx("another", 326); });
    mWhen = "`ClibStat` throws another exception, which passes unchanged";
    mTrace = R"(
        Entered
        family changes
        ClibStat("/etc/oracle-release", local)
        throws OQCOpenFailedEx 326 "another"
    )";
    mStays = "the name; the family is stored";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
}

OUTCOME(OsGetOsName, PassesAnExceptionOfTheRead)
{
    System lSystem("/etc/oracle-release");
    substitute::getFirstLineFromFile.instead(
        [](const OQCString&, OQCString&) -> int { throw OQCNoMemoryEx("Out of Memory", 2); });
    mNeedsMemory = true;
    mWhen = "no memory while the line is read";
    mTrace = cFound + "getFirstLineFromFile(\"/etc/oracle-release\", local)\nthrows OQCNoMemoryEx 2 \"Out of Memory\"";
    mStays = "the name; the family is stored";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
}

// Each text needs three allocations: the object, the characters and the counter. A text whose characters fit into
// the object needs two.
OUTCOME_OF_ALLOCATIONS(OsGetOsName, ThrowsWithoutMemoryBeforeTheFileIsRead, 1, 2, 3, 4, 5)
{
    System lSystem("/etc/oracle-release");
    mWhen = "no memory for the line or the path before the file is read";
    mTrace = cFound + R"(throws OQCNoMemoryEx 2 "Out of Memory")";
    mStays = "the name; the family is stored";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
}

OUTCOME_OF_ALLOCATIONS(OsGetOsName, ThrowsWithoutMemoryForTheName, 8, 9)
{
    System lSystem("/etc/oracle-release");
    setFirstLine("release 9");
    mWhen = "no memory for the name";
    mTrace = cFound + R"(
        getFirstLineFromFile("/etc/oracle-release", local) = 0
        -T- "Found OS Info: '%s'" "release 9"
        throws OQCNoMemoryEx 2 "Out of Memory"
    )";
    mStays = "the name; the family is stored";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
}

OUTCOME_OF_ALLOCATIONS(OsGetOsName, ThrowsWithoutMemoryForTheFixedTextOfAnUnreadableFile, 6, 7, 8, 9, 10, 11)
{
    System lSystem("/etc/oracle-release");
    substitute::getFirstLineFromFile.fail(-1, EIO);
    mWhen = "no memory for the fixed text after a file that cannot be read";
    mTrace = cFound + R"(
        getFirstLineFromFile("/etc/oracle-release", local) = -1
        -T- "Not able to determine the OS variant information"
        throws OQCNoMemoryEx 2 "Out of Memory"
    )";
    mStays = "the name; the family is stored";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
}

// Allocations 1 to 3 are the exceptions for the three missing files.
OUTCOME_OF_ALLOCATIONS(OsGetOsName, ThrowsWithoutMemoryForTheFixedText, 4, 5, 6, 7, 8, 9)
{
    System lSystem(nullptr);
    mWhen = "no memory for the fixed text where there is no release file";
    mTrace = cNotFound + R"(throws OQCNoMemoryEx 2 "Out of Memory")";
    mStays = "the name; the family is stored";
    run([&] { OsGetOsName(lSystem.mFamily, lSystem.mName); });
}

}  // namespace
