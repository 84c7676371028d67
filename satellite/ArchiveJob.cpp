#include "satellite/ArchiveJob.h"

void releaseArchiveJob(TCreateZipThreadData* record) {
    bool last;
    {
        PLockGuard lock(record->completion);
        last = --record->holders == 0;
    }
    // The other holder let go before us and will not come back.
    if (last) delete record;
}
