// The value types: a string with deep copies, a list that the layer fills, a pointer that counts its holders.

#include <OQLinux.h>
#include <stdio.h>

struct Part {
    ~Part() { printf("the part is freed\n"); }
};

int main()
{
    try {
        OQCString lText("one");
        OQCList<OQCString> lList;
        lList.append(lText);  // a copy
        lText += " and more";
        lList.append(lText);
        for (const OQCString& acrText : lList) {
            printf("%s\n", acrText.get());
        }

        // If the allocation fails, new returns null and the constructor throws OQCNoMemoryEx.
        Pointer<Part> lFirst(new (std::nothrow) Part, OQPST_Individual, OQPMT_New);
        {
            const Pointer<Part> lSecond(lFirst);
            printf("two holders, %d texts\n", lList.size());
        }
        printf("one holder\n");
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "values: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
    return 0;
}
