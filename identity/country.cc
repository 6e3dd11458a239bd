#include "identity/country.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "support/configuration.h"
#include "support/handle.h"
#include "support/ignored.h"
#include "support/shell.h"

int CountryRW(int mode, char *buffer) {
    const char *const arguments = RETURN_DEF_STR("SYSTEM_COUNTRY_ARGS");
    if (arguments == nullptr) return 0;
    int partition = 0;
    unsigned offset = 0;
    ignored(sscanf(arguments, "%d %x", &partition, &offset));
    const int access = mode == 0 ? O_RDONLY : O_WRONLY;
    const DescriptorHandle device(open(M("/dev/mtdblock%d", partition), access | O_CLOEXEC));
    if (device < 0) return 0;
    if (mode == 0) {
        ignored(pread(device, buffer, 2, static_cast<off_t>(offset)));
        buffer[2] = '\0';
    } else {
        ignored(pwrite(device, buffer, 2, static_cast<off_t>(offset)));
    }
    return 0;
}
