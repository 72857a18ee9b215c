// A thread runs a callable. join() waits for the thread and rethrows an exception of the callable.

#include <OQGuards.h>
#include <stdio.h>

#include <stdexcept>

int main()
{
    try {
        unsigned int lSum = 0;
        OQCThread lAdding([&lSum] {
            for (unsigned int lNumber = 1; lNumber <= 100; ++lNumber) {
                lSum += lNumber;
            }
        });
        lAdding.join();  // the results may be read afterwards
        printf("the sum: %u\n", lSum);
        OQCThread lFailing([] { throw std::runtime_error("no numbers"); });
        lFailing.join();
        return 1;
    } catch (const std::runtime_error& acrFailure) {
        printf("thrown by the thread: %s\n", acrFailure.what());
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "threads: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
