// Which image an update offers, after whatever has happened to the device.
#include "data_directory.h"
#include "device.h"
#include "device_state.h"
#include "system_information.h"

#include <cstring>

// The platform that the tests bring along, as the daemon does.
int system_info_get_value_string(int key, char** value) {
    if (key != SYSTEM_INFO_KEY_FIRMWARE_VERSION || platform_firmware.empty()) return -1;
    *value = strdup(platform_firmware.c_str());
    return 0;
}

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class Offer : public Device {
protected:
    Offer() {
        platform_firmware = "T-1200.1";
        settled = false;
    }

    /** Puts an image in place as the host does, and as far as an installation came. */
    void store(const std::string& image, const std::string& recorded_version) const {
        write_file(places.stored_image, image);
        remove("zelADAgent.img");
        if (!recorded_version.empty()) record(recorded_version);
    }

    ad_agent::DeviceState state() const {
        return ad_agent::read_state(*ad_agent::DataDirectory::open(data));
    }

    /** What the host does with an image that it was offered, up to the recorded version. */
    void install() {
        ASSERT_TRUE(update("0.00")) << output;
        store(IMAGE, "");
        write_file(places.updatable_library, "a library");
        ASSERT_TRUE(agent.set_version("1.06"));
    }

    void start(const std::string& library, bool updatable_was_there = true) {
        listen([&] { return agent.report_loaded_library(library, updatable_was_there), true; });
    }
};

TEST_F(Offer, IsTheStoredImageWhenItsInstallationWasCut) {
    server.serve("/update.ini", "");
    for (const char* recorded : {"1.05", "", "1.060", "1.07"}) {
        SCOPED_TRACE(recorded);
        std::filesystem::remove_all(data);
        write_file(part, "a download");
        store(IMAGE, recorded);
        expect_update("1.06", IMAGE);
        EXPECT_THAT(output,
                    HasSubstr("version 1.06 was interrupted; offering the stored image again"));
        EXPECT_EQ(image_files(), Names{"zelADAgent.img"});
        EXPECT_THAT(server.take_requests(), IsEmpty());
    }
    for (const auto& [stored, recorded] :
         Cases{{"1.06", "1.06"}, {"0.00", "1.05"}, {"not a version", "1.05"}}) {
        store(IMAGE, recorded);
        expect_no_update(stored, "update.ini: [image]");
    }

    // There is no need for a configuration, but for an image.
    store(IMAGE, "1.05");
    std::filesystem::remove(places.configuration);
    EXPECT_TRUE(update("1.06"));
    std::filesystem::remove(places.stored_image);
    expect_no_update("1.06", "failed to open " + places.stored_image + ": No such file");
}

TEST_F(Offer, DoesNotStayWithAnImageThatIsCutForEver) {
    ASSERT_TRUE(update("0.00"));
    store(IMAGE, "1.05");
    for (int tries = 0; tries < 5; ++tries) {
        server.take_requests();
        expect_update("1.06", IMAGE);
        EXPECT_EQ(server.take_requests().empty(), tries < 3);
    }
    server.publish("1.07", "newer");
    expect_update("1.06", "newer");
}

TEST_F(Offer, LeavesADeviceOnItsFirmwareCopyAfterAFirmwareChange) {
    ASSERT_TRUE(update("0.00"));
    store(IMAGE, "1.05");
    for (const char* firmware : {"T-1300.1", ""}) {
        platform_firmware = firmware;
        expect_no_update("1.06", "1.06 is not newer than the stored version 1.06");
    }
    server.publish("1.07", "newer");
    expect_update("1.06", "newer");
    // An installation under the new firmware that is cut is completed again.
    store("newer", "1.06");
    EXPECT_TRUE(update("1.07"));
}

TEST_F(Offer, IsNewerThanEveryCopyThatIsHereAndFitsTheFirmware) {
    write_file(places.firmware_manifest, "<Zel><Version>1.06</Version></Zel>");
    expect_no_update("0.00", "not newer than the firmware's version 1.06");
    store(IMAGE, "1.04");
    expect_no_update("1.05", "not newer than the firmware's version 1.06");
    EXPECT_THAT(image_files(), IsEmpty());

    write_file(places.firmware_manifest, "<Zel><Version>1.00</Version></Zel>");
    std::filesystem::remove(places.stored_image);
    ASSERT_TRUE(agent.set_version("1.06"));
    write_file(places.updatable_library, "a library");
    expect_no_update("0.00", "1.06 is not newer than the installed version 1.06");
    std::filesystem::remove(places.updatable_library);
    EXPECT_TRUE(update("0.00"));

    server.publish("1.07", "newer", "min_firmware=T-1200.2\n");
    expect_no_update("0.00", "refusing version 1.07: it requires firmware T-1200.2");
    platform_firmware = "T-1200.10";
    EXPECT_TRUE(update("0.00"));
}

TEST_F(Offer, IsNotAnImageWhoseLibraryFailedToLoad) {
    install();
    start(places.firmware_library);
    EXPECT_THAT(output, HasSubstr("library of version 1.06 failed to load"));
    std::filesystem::remove(places.updatable_library);

    expect_no_update("0.00", "refusing version 1.06: its library failed to load on this device");
    store(IMAGE, "1.05");
    expect_no_update("1.06", "refusing the stored image");
    server.publish("1.07", "newer");
    EXPECT_TRUE(update("1.06"));
}

TEST_F(Offer, IsOnlyRefusedForALibraryThatNeverLoaded) {
    install();
    const std::string installed = read_file(data + "/state.ini");
    const auto& updatable = places.updatable_library;
    const auto& builtin = places.firmware_library;
    struct Case {
        const char* what;
        std::vector<std::pair<std::string, bool>> starts;  // library, whether updatable was there
        std::size_t bad;
    };
    for (const Case& c :
         {Case{"it loads, and fails later", {{updatable, true}, {builtin, true}}, 0},
          {"a firmware change removed it", {{builtin, false}, {builtin, true}}, 0},
          {"some other copy is loaded", {{"agent.so", true}}, 0},
          {"and then it fails", {{"agent.so", true}, {builtin, true}}, 1}}) {
        write_file(data + "/state.ini", installed);
        for (const auto& [library, was_there] : c.starts) start(library, was_there);
        EXPECT_EQ(state().bad.size(), c.bad) << c.what;
    }

    // Installed again by a repair, it keeps what is known of it.
    write_file(data + "/state.ini", installed);
    start(updatable);
    ASSERT_TRUE(agent.set_version("1.06"));
    EXPECT_TRUE(state().installed_loaded);
    store("another image", "");
    ASSERT_TRUE(agent.set_version("1.07"));
    EXPECT_FALSE(state().installed_loaded);
}

}  // namespace
