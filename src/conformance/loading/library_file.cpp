// Reads the header and the program headers of an ELF file; see library_file.h. What the
// module needs is what this program itself is made for.
#include "conformance/loading/library_file.h"

#include <elf.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>
#include <vector>

#include "base/descriptor.h"

namespace kavri::conformance {

namespace {

using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);
using Entry = ElfW(Dyn);

constexpr unsigned char ownClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char ownOrder =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

struct Machine {
    unsigned number;
    const char* name;
};
constexpr std::array machines = {
    Machine{EM_386, "x86"},         Machine{EM_X86_64, "x86-64"}, Machine{EM_ARM, "ARM"},
    Machine{EM_AARCH64, "AArch64"}, Machine{EM_RISCV, "RISC-V"},  Machine{EM_PPC64, "PowerPC 64"},
    Machine{EM_S390, "S/390"},      Machine{EM_MIPS, "MIPS"},     Machine{EM_PPC, "PowerPC"}};

#if defined(__x86_64__)
constexpr unsigned ownMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr unsigned ownMachine = EM_AARCH64;
#elif defined(__riscv)
constexpr unsigned ownMachine = EM_RISCV;
#else
#error "say here which machine a library must be for"
#endif

std::string machineText(unsigned number) {
    for (const Machine& machine : machines) {
        if (machine.number == number) {
            return machine.name;
        }
    }
    return fmt::format("machine number {}", number);
}

std::string bitsText(unsigned char elfClass) {
    return elfClass == ELFCLASS32 ? "32-bit" : elfClass == ELFCLASS64 ? "64-bit" : "unknown";
}

class File {
  public:
    explicit File(const std::filesystem::path& path)
        : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)),
          error_(descriptor_.isOpen() ? 0 : errno) {
        if (descriptor_.isOpen() && fstat(descriptor_.get(), &status_) != 0) {
            error_ = errno;
        }
    }

    std::string why() const {
        if (error_ != 0) {
            return "cannot be read: " + std::generic_category().message(error_);
        }
        if (!S_ISREG(status_.st_mode)) {
            return "is no regular file";
        }
        if (size() == 0) {
            return "is empty";
        }
        return whyNotLoadable();
    }

  private:
    std::uint64_t size() const { return static_cast<std::uint64_t>(status_.st_size); }

    template <typename Content>
    bool read(std::uint64_t offset, Content* content, std::size_t count) const {
        const std::size_t bytes = count * sizeof(Content);
        return pread(descriptor_.get(), content, bytes, static_cast<off_t>(offset)) ==
               static_cast<ssize_t>(bytes);
    }

    std::string whyNotLoadable() const {
        Header header{};
        if (!read(0, header.e_ident, EI_NIDENT) ||
            std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
            return "is no shared library: it does not begin like one";
        }
        if (std::string why = whyOtherMachine(header); !why.empty()) {
            return why;
        }
        if (!read(0, &header, 1)) {
            return "is cut off: it ends within its header";
        }
        if (header.e_machine != ownMachine) {
            return fmt::format("is for {}; the module is for {}", machineText(header.e_machine),
                               machineText(ownMachine));
        }
        return header.e_type == ET_DYN ? whyIncomplete(header) : otherKind(header.e_type);
    }

    // What the first bytes tell, which have the same form for every machine.
    std::string whyOtherMachine(const Header& header) const {
        const unsigned char elfClass = header.e_ident[EI_CLASS];
        const unsigned char order = header.e_ident[EI_DATA];
        if (elfClass == ownClass && order == ownOrder) {
            return "";
        }
        std::array<unsigned char, 2> number{};
        constexpr std::uint64_t machineOffset = offsetof(Header, e_machine);
        std::string machine = "an unknown machine";
        if (read(machineOffset, number.data(), number.size())) {
            const unsigned first = number[order == ELFDATA2LSB ? 0 : 1];
            const unsigned second = number[order == ELFDATA2LSB ? 1 : 0];
            machine = machineText(first + (second << 8U));
        }
        return fmt::format("is a {} file for {}; the module is {} and for {}", bitsText(elfClass),
                           machine, bitsText(ownClass), machineText(ownMachine));
    }

    static std::string otherKind(unsigned type) {
        switch (type) {
            case ET_REL:
                return "is an object file, and not linked to a shared library yet";
            case ET_EXEC:
                return "is a program, and no shared library";
            case ET_CORE:
                return "is a core dump, and no shared library";
            default:
                return "is no shared library";
        }
    }

    // What the segments need of the file must be there.
    std::string whyIncomplete(const Header& header) const {
        std::vector<Segment> segments(header.e_phnum);
        if (header.e_phentsize != sizeof(Segment) || segments.empty()) {
            return "is no shared library: it has no segments to load";
        }
        if (!read(header.e_phoff, segments.data(), segments.size())) {
            return fmt::format("is cut off: it has {} bytes, and ends within its headers", size());
        }
        std::uint64_t end = 0;
        for (const Segment& segment : segments) {
            end = std::max<std::uint64_t>(end, segment.p_offset + segment.p_filesz);
            if (segment.p_type == PT_DYNAMIC && isProgram(segment)) {
                return "is a program, and no shared library";
            }
        }
        return end > size() ? fmt::format("is cut off: it has {} of {} bytes", size(), end) : "";
    }

    // A program that can be loaded anywhere has the type of a library, and a mark.
    bool isProgram(const Segment& dynamic) const {
        Entry entry{};
        for (std::uint64_t at = 0; at + sizeof entry <= dynamic.p_filesz; at += sizeof entry) {
            if (!read(dynamic.p_offset + at, &entry, 1) || entry.d_tag == DT_NULL) {
                return false;
            }
            if (entry.d_tag == DT_FLAGS_1) {
                return (entry.d_un.d_val & DF_1_PIE) != 0;
            }
        }
        return false;
    }

    base::Descriptor descriptor_;
    int error_;
    struct stat status_ {};
};

}  // namespace

std::string whyNoLibrary(const std::filesystem::path& file) {
    return File(file).why();
}

}  // namespace kavri::conformance
