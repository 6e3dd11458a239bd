#include "identity/mac.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "daemon/board.h"
#include "support/configuration.h"
#include "support/handle.h"
#include "support/ignored.h"
#include "support/shell.h"
#include "support/string_utils.h"

namespace {

constexpr size_t kAddressSize = 6;

// The qc98xx calibration block: 16-bit words whose exclusive-or is 0xFFFF. One of the words is the checksum.
constexpr off_t kBlockOffset = 0x5000;
constexpr size_t kBlockSize = 0x844;
constexpr size_t kChecksum = 2;  // offset in the block

struct Address {
    uint8_t bytes[kAddressSize];  // most significant first, as on the flash
};

// The kind of a slot: the first row whose limit is above the slot's id.
struct SlotKind {
    int limit;
    const char *name;
    const char *key;   // null: kWiredMacKey
    bool checksummed;  // by the calibration block
};

constexpr SlotKind kSlotKinds[] = {
    {50, "ethernet", nullptr, false},
    {60, "wireless(2.4G)", k24GMacKey, false},
    {70, "wireless(5G)", k5GMacKey, true},
};

const SlotKind *kindOf(int id) {
    for (const SlotKind &kind : kSlotKinds) {
        if (id < kind.limit) return &kind;
    }
    return nullptr;
}

// Reads a field at every third character. Fields that the text is too short for are 0.
Address parsePairs(const char *text) {
    Address address = {};
    const size_t length = strlen(text);
    for (size_t i = 0; i < kAddressSize && 3 * i < length; ++i) {
        address.bytes[i] = static_cast<uint8_t>(my_strtou32(text + 3 * i, nullptr, 16));
    }
    return address;
}

// Intended: the number is decimal, unlike the form with colons.
Address parseNumber(const char *text) {
    Address address = {};
    uint64_t number = strtoull(text, nullptr, 10);
    for (size_t i = kAddressSize; i > 0; --i) {
        address.bytes[i - 1] = static_cast<uint8_t>(number);
        number >>= 8;
    }
    return address;
}

void increment(Address *address) {
    for (size_t i = kAddressSize; i > 0; --i) {
        if (++address->bytes[i - 1] != 0) return;
    }
}

// Opens the device without creating or truncating it, so that a partition image in a regular file works, too.
int openPartition(int number, int access) { return open(M("/dev/mtdblock%d", number), access | O_CLOEXEC); }

// Returns whether the calibration block's checksum covers the slot.
bool programSlot(int device, int id, uint32_t offset, const Address &address) {
    ignored(pwrite(device, address.bytes, kAddressSize, static_cast<off_t>(offset)));
    const SlotKind *const kind = kindOf(id);
    if (kind == nullptr) return false;
    const uint8_t *const b = address.bytes;
    const char *const text = M("%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4], b[5]);
    add_configuration(kind->key != nullptr ? kind->key : M(kWiredMacKey, id), text);
    const uint32_t end = offset + kAddressSize;
    syslog(LOG_ALERT, "set %s MAC: %s, ftell=0x%x\n", kind->name, text, end);
    return kind->checksummed;
}

// Programs the slots in the order of the list. -1 at a slot without an offset. Trailing blanks are not a slot.
int programSlots(int device, const char *slot, Address address, bool *checksummed) {
    while (slot != nullptr && slot[strspn(slot, " ")] != '\0') {
        const int id = atoi(slot);
        const char *const underscore = strchr(slot, '_');
        if (underscore == nullptr) return -1;
        if (programSlot(device, id, my_strtou32(underscore + 1, nullptr, 16), address)) *checksummed = true;
        increment(&address);
        slot = my_skipWords(underscore, 1);
    }
    return 0;
}

}  // namespace

int setMac(const char *text) {
    const char *const arguments = RETURN_DEF_STR(kMacArguments);
    if (arguments == nullptr) return -1;
    // A private copy: storing an address may move the table's records.
    char *const list = strdup(arguments);
    if (list == nullptr) return -1;
    const Address first = strchr(text, ':') != nullptr ? parsePairs(text) : parseNumber(text);
    bool checksummed = false;
    int result = -1;
    {
        const DescriptorHandle device(openPartition(atoi(list), O_WRONLY));
        if (device >= 0) result = programSlots(device, my_skipWords(list, kWordsBeforeSlots), first, &checksummed);
    }
    free(list);
    if (result != 0) return result;
    if (checksummed) qc98xx_verify_checksum();
    resetSwitch();
    interfaceCmd();
    return 0;
}

void qc98xx_verify_checksum() {
    const DescriptorHandle device(openPartition(RETURN_DEF_INT("SYSTEM_ART_PART"), O_RDWR));
    if (device < 0) return;
    uint8_t block[kBlockSize] = {};
    ignored(pread(device, block, sizeof block, kBlockOffset));
    const uint8_t stored[2] = {block[kChecksum], block[kChecksum + 1]};
    block[kChecksum] = block[kChecksum + 1] = 0xFF;
    // Byte by byte: independent of the processor's byte order.
    uint8_t sum[2] = {};
    for (size_t i = 0; i < kBlockSize; ++i) sum[i % 2] ^= block[i];
    if (memcmp(sum, stored, sizeof sum) == 0) return;
    ignored(pwrite(device, sum, sizeof sum, kBlockOffset + off_t{kChecksum}));
}
