// libpelyx.so exports exactly the functions declared in include/pelyx/pelyx.h: a declaration
// without its export, or any extra exported symbol, fails here.

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "pelyx/pelyx.h"

namespace {

std::string readFile(const char* path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Drops comments and preprocessor lines, then takes the identifier in front of the first
// parenthesis of every declaration (a chunk between ';', '{' and '}'). Typedefs are skipped.
std::set<std::string> declaredFunctions(const std::string& header) {
    std::string code;
    for (size_t i = 0; i < header.size();) {
        if (header.compare(i, 2, "/*") == 0) {
            size_t end = header.find("*/", i + 2);
            i = end == std::string::npos ? header.size() : end + 2;
        } else if (header.compare(i, 2, "//") == 0) {
            i = header.find('\n', i);
            if (i == std::string::npos) i = header.size();
        } else {
            code += header[i++];
        }
    }
    std::istringstream lines(code);
    std::string line;
    std::string body;
    while (std::getline(lines, line)) {
        size_t first = line.find_first_not_of(" \t");
        if (first != std::string::npos && line[first] == '#') continue;
        body += line + '\n';
    }

    std::set<std::string> names;
    std::string chunk;
    auto take = [&] {
        std::istringstream words(chunk);
        std::string firstWord;
        words >> firstWord;
        size_t paren = chunk.find('(');
        if (paren != std::string::npos && firstWord != "typedef") {
            size_t end = paren;
            while (end > 0 && std::isspace(static_cast<unsigned char>(chunk[end - 1]))) end--;
            size_t begin = end;
            while (begin > 0 &&
                   (std::isalnum(static_cast<unsigned char>(chunk[begin - 1])) ||
                    chunk[begin - 1] == '_')) {
                begin--;
            }
            names.insert(chunk.substr(begin, end - begin));
        }
        chunk.clear();
    };
    for (char c : body) {
        if (c == ';' || c == '{' || c == '}') {
            take();
        } else {
            chunk += c;
        }
    }
    return names;
}

struct DynamicSymbol {
    std::string name;
    unsigned type;
};

template <typename Ehdr, typename Shdr, typename Sym>
std::vector<DynamicSymbol> definedDynamicSymbols(const std::string& image) {
    std::vector<DynamicSymbol> out;
    if (image.size() < sizeof(Ehdr)) return out;
    Ehdr eh;
    memcpy(&eh, image.data(), sizeof(eh));
    if (eh.e_shoff == 0 || eh.e_shentsize != sizeof(Shdr) ||
        eh.e_shoff + uint64_t{eh.e_shnum} * sizeof(Shdr) > image.size()) {
        return out;
    }
    auto section = [&](size_t index) {
        Shdr sh;
        memcpy(&sh, image.data() + eh.e_shoff + index * sizeof(Shdr), sizeof(sh));
        return sh;
    };
    for (size_t i = 0; i < eh.e_shnum; i++) {
        const Shdr symtab = section(i);
        if (symtab.sh_type != SHT_DYNSYM || symtab.sh_link >= eh.e_shnum) continue;
        const Shdr strtab = section(symtab.sh_link);
        if (symtab.sh_offset + symtab.sh_size > image.size() ||
            strtab.sh_offset + strtab.sh_size > image.size()) {
            return out;
        }
        for (size_t s = 0; s < symtab.sh_size / sizeof(Sym); s++) {
            Sym sym;
            memcpy(&sym, image.data() + symtab.sh_offset + s * sizeof(Sym), sizeof(sym));
            const unsigned bind = sym.st_info >> 4;
            if (sym.st_shndx == SHN_UNDEF || bind == STB_LOCAL) continue;
            if (sym.st_name >= strtab.sh_size) continue;
            const char* name = image.data() + strtab.sh_offset + sym.st_name;
            out.push_back({std::string(name, strnlen(name, strtab.sh_size - sym.st_name)),
                           static_cast<unsigned>(sym.st_info & 0xf)});
        }
    }
    return out;
}

std::vector<DynamicSymbol> definedDynamicSymbols(const std::string& image) {
    if (image.size() < EI_NIDENT || memcmp(image.data(), ELFMAG, SELFMAG) != 0) return {};
    if (image[EI_CLASS] == ELFCLASS64) {
        return definedDynamicSymbols<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(image);
    }
    return definedDynamicSymbols<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(image);
}

} // namespace

TEST(ApiExports, HeaderDeclaresTheEntryFunctions) {
    const std::set<std::string> declared = declaredFunctions(readFile(PELYX_HEADER_PATH));
    ASSERT_GE(declared.size(), 12u);
    for (const char* name : {"pelyxInit", "pelyxTrackBufferIncrement", "pelyxTrackBufferDecrement",
                             "pelyxFlushLatchUnsignaledGpuFences", "aPelyxAppInit"}) {
        EXPECT_EQ(declared.count(name), 1u) << name;
    }
    for (const std::string& name : declared) {
        EXPECT_TRUE(name.rfind("pelyx", 0) == 0 || name.rfind("aPelyx", 0) == 0)
                << "unexpected declaration '" << name << "'";
    }
}

TEST(ApiExports, LibraryExportsExactlyTheDeclaredFunctions) {
    const std::set<std::string> declared = declaredFunctions(readFile(PELYX_HEADER_PATH));
    const std::string image = readFile(PELYX_LIBRARY_PATH);
    ASSERT_FALSE(image.empty()) << PELYX_LIBRARY_PATH;
    const std::vector<DynamicSymbol> symbols = definedDynamicSymbols(image);
    ASSERT_FALSE(symbols.empty()) << "no defined dynamic symbols in " << PELYX_LIBRARY_PATH;

    std::set<std::string> exported;
    for (const DynamicSymbol& sym : symbols) {
        EXPECT_EQ(sym.type, static_cast<unsigned>(STT_FUNC)) << sym.name << " is not a function";
        EXPECT_EQ(declared.count(sym.name), 1u) << "exported but not declared: " << sym.name;
        exported.insert(sym.name);
    }
    for (const std::string& name : declared) {
        EXPECT_EQ(exported.count(name), 1u) << "declared but not exported: " << name;
    }
}

// The library loads with every reference bound and each declared function is reachable by name,
// the way a compositor finds it.
TEST(ApiExports, EveryDeclaredFunctionResolvesAtLoad) {
    void* handle = dlopen(PELYX_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    for (const std::string& name : declaredFunctions(readFile(PELYX_HEADER_PATH))) {
        EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
    }
    // Nothing of the library's insides is reachable.
    EXPECT_EQ(dlsym(handle, "_ZN7android12LayerManager11getInstanceEv"), nullptr);
    auto smartTouchEnabled =
            reinterpret_cast<bool (*)()>(dlsym(handle, "pelyxSmartTouchEnabled"));
    ASSERT_NE(smartTouchEnabled, nullptr);
    EXPECT_FALSE(smartTouchEnabled());
}
