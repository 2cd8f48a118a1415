// Lowest PCI layer: sysfs scan, per-access config file reads and writes, bridge tree nodes.
#include "ddapi/pci/PCICommonFunction.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "api/platform/Platform.h"

namespace {
const char kDevicesDir[] = "/sys/bus/pci/devices";

bool addressLess(const struct device* a, const struct device* b) {
    const pci_dev* x = a->dev;
    const pci_dev* y = b->dev;
    if (x->domain != y->domain) return x->domain < y->domain;
    if (x->bus != y->bus) return x->bus < y->bus;
    if (x->device != y->device) return x->device < y->device;
    return x->function < y->function;
}
}  // namespace

void PCICommonFunction::configPath(char* out, size_t size, uint16_t domain, uint16_t bus,
                                   uint16_t device, uint8_t function) {
    snprintf(out, size, "/sys/bus/pci/devices/%04x:%02x:%02x.%x/config", domain, bus, device,
             function);
}

bool PCICommonFunction::readConfig(uint16_t domain, uint16_t bus, uint16_t device,
                                   uint8_t function, uint32_t offset, void* value, size_t width) {
    char path[96];
    configPath(path, sizeof(path), domain, bus, device, function);
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(path, O_RDONLY);
    if (fd < 0) return false;
    const ssize_t n = p.pread(fd, value, width, offset);
    p.close(fd);
    return n == static_cast<ssize_t>(width);
}

int PCICommonFunction::writeConfig(uint16_t domain, uint16_t bus, uint16_t device,
                                   uint8_t function, uint32_t offset, const void* value,
                                   size_t width) {
    char path[96];
    configPath(path, sizeof(path), domain, bus, device, function);
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(path, O_RDWR);
    if (fd < 0) {
        printf("cannot open %s\n", path);
        return -1;
    }
    const ssize_t n = p.pwrite(fd, value, width, offset);
    p.close(fd);
    if (n != static_cast<ssize_t>(width)) {
        printf("write failed");
        return -1;
    }
    return static_cast<int>(n);
}

uint8_t PCICommonFunction::ConfigReadByte(uint16_t domain, uint16_t bus, uint16_t device,
                                          uint8_t function, uint32_t offset) {
    uint8_t v = 0;
    return readConfig(domain, bus, device, function, offset, &v, 1) ? v : 0;
}

uint16_t PCICommonFunction::ConfigReadWord(uint16_t domain, uint16_t bus, uint16_t device,
                                           uint8_t function, uint32_t offset) {
    uint16_t v = 0;
    return readConfig(domain, bus, device, function, offset, &v, 2) ? v : 0;
}

uint32_t PCICommonFunction::ConfigReadDword(uint16_t domain, uint16_t bus, uint16_t device,
                                            uint8_t function, uint32_t offset) {
    uint32_t v = 0;
    return readConfig(domain, bus, device, function, offset, &v, 4) ? v : 0;
}

int PCICommonFunction::ConfigWriteByte(uint16_t domain, uint16_t bus, uint16_t device,
                                       uint8_t function, uint32_t offset, uint8_t value) {
    return writeConfig(domain, bus, device, function, offset, &value, 1);
}

int PCICommonFunction::ConfigWriteWord(uint16_t domain, uint16_t bus, uint16_t device,
                                       uint8_t function, uint32_t offset, uint16_t value) {
    return writeConfig(domain, bus, device, function, offset, &value, 2);
}

int PCICommonFunction::ConfigWriteDword(uint16_t domain, uint16_t bus, uint16_t device,
                                        uint8_t function, uint32_t offset, uint32_t value) {
    return writeConfig(domain, bus, device, function, offset, &value, 4);
}

void* PCICommonFunction::xmalloc(size_t size) {
    void* p = calloc(1, size);
    if (!p) printf("Unable to allocate %d bytes of memory", static_cast<int>(size));
    return p;
}

pci_access* PCICommonFunction::pci_alloc() {
    return static_cast<pci_access*>(xmalloc(sizeof(pci_access)));
}

void PCICommonFunction::sysfs_init(pci_access* access) {
    if (!access) return;
    access->fdConfig = -1;
    access->fdResource = -1;
}

void PCICommonFunction::sysfs_scan(pci_access* access) {
    if (!access) return;
    std::vector<quarn::DirEntry> entries;
    if (quarn::platform().listDirectory(kDevicesDir, &entries) != 0) {
        printf("Cannot open %s\n", kDevicesDir);
        return;
    }
    for (const quarn::DirEntry& e : entries) {
        if (e.name.empty() || e.name[0] == '.') continue;
        pci_dev* d = static_cast<pci_dev*>(xmalloc(sizeof(pci_dev)));
        if (!d) return;
        unsigned int dom = 0, b = 0, dev = 0;
        int fn = 0;
        const int parsed = sscanf(e.name.c_str(), "%x:%x:%x.%d", &dom, &b, &dev, &fn);
        if (parsed < 4) printf("sysfs_scan: Couldn't parse entry name %s\n", e.name.c_str());
        // Out-of-range fields of a malformed name are truncated to the record's widths,
        // as the kernel's own names never exceed them.
        d->domain = static_cast<uint16_t>(dom);
        d->bus = static_cast<uint8_t>(b);
        d->device = static_cast<uint8_t>(dev);
        d->function = static_cast<uint8_t>(fn);
        d->vendorID = ConfigReadWord(d->domain, d->bus, d->device, d->function, 0);
        d->deviceID = ConfigReadWord(d->domain, d->bus, d->device, d->function, 2);
        d->next = access->devices;
        access->devices = d;
    }
}

device* PCICommonFunction::scan_device(pci_dev* dev) {
    struct device* d = static_cast<struct device*>(xmalloc(sizeof(struct device)));
    if (d) d->dev = dev;
    return d;
}

void PCICommonFunction::pci_cleanup(pci_access* access) {
    if (!access) return;
    pci_dev* d = access->devices;
    while (d) {
        pci_dev* next = d->next;
        free(d);
        d = next;
    }
    free(access->idFileName);
    free(access);
}

bus* PCICommonFunction::find_bus(bridge* b, uint32_t domain, uint32_t number) {
    for (struct bus* bus = b ? b->first_bus : nullptr; bus; bus = bus->sibling)
        if (bus->domain == domain && bus->number == number) return bus;
    return nullptr;
}

bus* PCICommonFunction::new_bus(bridge* b, uint32_t domain, uint32_t number) {
    struct bus* bus = static_cast<struct bus*>(xmalloc(sizeof(struct bus)));
    if (!bus) return nullptr;
    bus->domain = domain;
    bus->number = number;
    bus->sibling = b->first_bus;
    bus->first_dev = nullptr;
    bus->last_dev = &bus->first_dev;
    b->first_bus = bus;
    return bus;
}

void PCICommonFunction::insert_dev(device* d, bridge* b) {
    const pci_dev* p = d->dev;
    // Iterative descent: a malformed bridge tree can never recurse without bound.
    for (;;) {
        struct bus* bus = find_bus(b, p->domain, p->bus);
        if (bus) {
            *bus->last_dev = d;
            bus->last_dev = &d->busNext;
            d->busNext = nullptr;
            return;
        }
        bridge* c = b->child;
        for (; c; c = c->next)
            if (c->domain == p->domain && c->secondary <= p->bus && p->bus <= c->subordinate) break;
        if (!c) {
            bus = new_bus(b, p->domain, p->bus);
            if (!bus) return;
            *bus->last_dev = d;
            bus->last_dev = &d->busNext;
            d->busNext = nullptr;
            return;
        }
        b = c;
    }
}

void PCICommonFunction::release_pci_tree(bridge* host) {
    if (!host) return;
    // Bridges hang on the host's chain; the host itself belongs to its owner.
    for (bridge* b = host; b; b = b->chain) {
        struct bus* bus = b->first_bus;
        while (bus) {
            struct bus* next = bus->sibling;
            free(bus);
            bus = next;
        }
        b->first_bus = nullptr;
        b->child = nullptr;
    }
    bridge* b = host->chain;
    while (b) {
        bridge* next = b->chain;
        free(b);
        b = next;
    }
    host->chain = nullptr;
}

void PCICommonFunction::release_device_struct(device* first) {
    while (first) {
        struct device* next = first->next;
        free(first->config);
        free(first->present);
        free(first);
        first = next;
    }
}

device* PCICommonFunction::sort_them(device* first) {
    std::vector<struct device*> items;
    for (struct device* d = first; d; d = d->next) items.push_back(d);
    printf("PCICommonFunction::sort_them, cnt: %d\n", static_cast<int>(items.size()));
    for (size_t i = 0; i < items.size(); ++i) printf("----\n");
    std::stable_sort(items.begin(), items.end(), addressLess);
    printf("%s\n", std::string(43, '#').c_str());
    for (size_t i = 0; i < items.size(); ++i) {
        items[i]->next = i + 1 < items.size() ? items[i + 1] : nullptr;
        const pci_dev* p = items[i]->dev;
        printf("%04x:%02x:%02x.%x\n", p->domain, p->bus, p->device, p->function);
    }
    printf("%s\n", std::string(43, '#').c_str());
    return items.empty() ? nullptr : items[0];
}
