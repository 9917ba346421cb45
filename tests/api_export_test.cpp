// libpelyx.so exports exactly the functions declared in include/pelyx/pelyx.h: a declaration
// without its export, or any extra exported symbol, fails here.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>

#include "pelyx/pelyx.h"

namespace {

std::string readFile(const char* path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Every "name(...);" outside comments and preprocessor lines: the header's function declarations.
std::set<std::string> declaredFunctions() {
    static const std::regex kNoise(R"(/\*[\s\S]*?\*/|//[^\n]*|\n[ \t]*#[^\n]*)");
    static const std::regex kDeclaration(R"((\w+)\s*\([^()]*\)\s*;)");
    const std::string code = std::regex_replace("\n" + readFile(PELYX_HEADER_PATH), kNoise, "\n");
    std::set<std::string> names;
    for (std::sregex_iterator it(code.begin(), code.end(), kDeclaration), end; it != end; ++it) {
        names.insert((*it)[1]);
    }
    return names;
}

// The defined global symbols of the library's dynamic symbol table, with their ELF types.
std::map<std::string, unsigned> exportedSymbols() {
    const std::string image = readFile(PELYX_LIBRARY_PATH);
    std::map<std::string, unsigned> out;
    auto at = [&](uint64_t offset, auto* value) {
        if (offset + sizeof(*value) > image.size()) return false;
        memcpy(value, image.data() + offset, sizeof(*value));
        return true;
    };
    ElfW(Ehdr) eh;
    if (!at(0, &eh) || memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0) return out;
    for (size_t i = 0; i < eh.e_shnum; i++) {
        ElfW(Shdr) symtab, strtab;
        if (!at(eh.e_shoff + i * sizeof(symtab), &symtab) || symtab.sh_type != SHT_DYNSYM ||
            !at(eh.e_shoff + symtab.sh_link * sizeof(strtab), &strtab) ||
            strtab.sh_offset + strtab.sh_size > image.size()) {
            continue;
        }
        for (size_t s = 0; s < symtab.sh_size / sizeof(ElfW(Sym)); s++) {
            ElfW(Sym) sym;
            if (!at(symtab.sh_offset + s * sizeof(sym), &sym)) break;
            if (sym.st_shndx == SHN_UNDEF || ELF64_ST_BIND(sym.st_info) == STB_LOCAL ||
                sym.st_name >= strtab.sh_size) {
                continue;
            }
            const char* name = image.data() + strtab.sh_offset + sym.st_name;
            out[std::string(name, strnlen(name, strtab.sh_size - sym.st_name))] =
                    ELF64_ST_TYPE(sym.st_info);
        }
    }
    return out;
}

} // namespace

TEST(ApiExports, LibraryExportsExactlyTheDeclaredFunctions) {
    const std::set<std::string> declared = declaredFunctions();
    ASSERT_GE(declared.size(), 12u);
    for (const char* name : {"pelyxInit", "pelyxTrackBufferIncrement", "aPelyxFilterBuffer"}) {
        EXPECT_EQ(declared.count(name), 1u) << name;
    }
    const std::map<std::string, unsigned> exported = exportedSymbols();
    ASSERT_FALSE(exported.empty()) << "no defined dynamic symbols in " << PELYX_LIBRARY_PATH;
    for (const auto& [name, type] : exported) {
        EXPECT_EQ(type, static_cast<unsigned>(STT_FUNC)) << name << " is not a function";
        EXPECT_EQ(declared.count(name), 1u) << "exported but not declared: " << name;
    }
    for (const std::string& name : declared) {
        EXPECT_EQ(exported.count(name), 1u) << "declared but not exported: " << name;
    }
}

// The library loads with every reference bound and each declared function is reachable by name,
// the way a compositor finds it; nothing of its insides is.
TEST(ApiExports, EveryDeclaredFunctionResolvesAtLoad) {
    void* handle = dlopen(PELYX_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    for (const std::string& name : declaredFunctions()) {
        EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
    }
    EXPECT_EQ(dlsym(handle, "_ZN7android12LayerManager11getInstanceEv"), nullptr);
    auto smartTouchEnabled = reinterpret_cast<bool (*)()>(dlsym(handle, "pelyxSmartTouchEnabled"));
    ASSERT_NE(smartTouchEnabled, nullptr);
    EXPECT_FALSE(smartTouchEnabled());
}
