#include "hostile/HostileFixture.hpp"

#include <zlib.h>

#include <filesystem>

#include "tsappinstall/messages/MessageIds.hpp"

namespace tsapp::test {

namespace ids = tsapp_builtins::tsapp_builtins;

Hostile::Hostile() {
    // The destination already holds a file of its own: a refused extraction
    // must leave it, and add nothing beside it.
    std::filesystem::create_directories(dest() + "/files");
    write_file(dest() + "/files/own.txt", "the caller's own file");
    write_file(iconOut(), "an older icon");
}

std::string Hostile::appInfoError(const std::string& package) {
    try {
        facade.getAppInfo(u16(package));
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

std::string Hostile::extractError(const std::string& package) {
    try {
        facade.extractAppFile(u16(package), u16(dest()));
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

bool Hostile::extractIcon(const std::string& package, std::string& printed) {
    CerrCapture err;
    const bool copied = facade.extractAppIcon(u16(package), u16(iconOut()));
    printed = err.text();
    return copied;
}

std::string Hostile::internalErrorText() {
    return ids::message_text(ids::TSAPP_BUILTINS_GET_APP_PROPERTIES_INTERNAL_ERROR());
}

std::string Hostile::extractionErrorText(const std::string& package) const {
    return ids::message_text(
        ids::TSAPP_BUILTINS_EXTRACT_FAILED_INTERNAL_ERROR(u16(package), u16(dest())));
}

void Hostile::expectRefusedEverywhere(const std::string& package, const std::string& label) {
    SCOPED_TRACE(label);
    const auto before = snapshot_tree(dir.path());
    EXPECT_FALSE(facade.isAppFile(u16(package)));
    EXPECT_EQ(appInfoError(package), internalErrorText());
    std::string printed;
    EXPECT_FALSE(extractIcon(package, printed));
    EXPECT_EQ(printed, internalErrorText());
    EXPECT_EQ(extractError(package), extractionErrorText(package));
    EXPECT_TRUE(snapshot_tree(dir.path()) == before) << "the folder changed";
}

void Hostile::expectOpensButExtractionRefused(const std::string& package,
                                              const std::string& label) {
    SCOPED_TRACE(label);
    const auto before = snapshot_tree(dir.path());
    EXPECT_TRUE(facade.isAppFile(u16(package)));
    EXPECT_EQ(extractError(package), extractionErrorText(package));
    EXPECT_TRUE(snapshot_tree(dir.path()) == before) << "the folder changed";
}

std::string little_endian(std::uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
    return out;
}

std::string stored_local_entry(const std::string& name, const std::string& data) {
    const auto crc =
        crc32(0L, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size()));
    return little_endian(0x04034b50, 4) + little_endian(20, 2) + little_endian(0, 2) +
           little_endian(0, 2) + little_endian(0, 4) + little_endian(crc, 4) +
           little_endian(data.size(), 4) + little_endian(data.size(), 4) +
           little_endian(name.size(), 2) + little_endian(0, 2) + name + data;
}

}  // namespace tsapp::test
