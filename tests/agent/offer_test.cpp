// Which image an update offers, after whatever has happened to the device.
#include "ADDigest.h"
#include "data_folder.h"
#include "device.h"
#include "device_state.h"

#include <gmock/gmock.h>

namespace {

using ad_agent::DataFolder;
using ad_agent::DeviceState;
using testing::HasSubstr;
using testing::IsEmpty;

class Offer : public Device {
protected:
    Offer() {
        platform_firmware = "T-1200.1";
        settled = false;
    }

    DeviceState state() const {
        std::string error;
        return ad_agent::read_state(*DataFolder::open(data, error));
    }

    /** What the host does with an image that it was offered, up to the recorded version. */
    void install(const std::string& version) {
        ASSERT_TRUE(update("0.00")) << output();
        store(image(), "");
        write_file(places.updatable_library, "a library");
        ASSERT_TRUE(agent.set_version(version));
    }

    void start(const std::string& library, bool updatable_was_there = true) {
        testing::internal::CaptureStderr();
        agent.loaded_from(library, updatable_was_there);
        said = testing::internal::GetCapturedStderr();
    }

    std::string said;
};

TEST_F(Offer, IsTheStoredImageWhenItsInstallationWasCut) {
    struct Case {
        const char* stored;
        const char* recorded;
        bool repairs;
    };
    for (const Case& c : {Case{"1.06", "1.05", true},
                          {"1.06", "", true},
                          {"1.06", "1.060", true},
                          {"1.06", "1.07", true},
                          {"1.06", "1.06", false},
                          {"0.00", "1.05", false},
                          {"not a version", "1.05", false}}) {
        SCOPED_TRACE(std::string(c.stored) + " " + c.recorded);
        std::filesystem::remove_all(data);
        std::filesystem::create_directory(data);
        write_file(data + "/zelADAgent.img.part", "a download");
        store(large_image(), c.recorded);
        EXPECT_EQ(update(c.stored), c.repairs);
        EXPECT_EQ(image(), c.repairs ? large_image() : "");
        if (!c.repairs) continue;
        EXPECT_THAT(output(), HasSubstr("was cut: the stored image is offered again"));
        EXPECT_EQ(image_files(), std::set<std::string>{"zelADAgent.img"});
        EXPECT_THAT(server.take_requests(), IsEmpty());
    }

    // There is no need for a configuration, but for an image.
    store(large_image(), "1.05");
    std::filesystem::remove(folder / "agent.conf");
    EXPECT_TRUE(update("1.06"));
    std::filesystem::remove(places.stored_image);
    EXPECT_FALSE(update("1.06"));
    EXPECT_THAT(output(), HasSubstr("cannot open " + places.stored_image + ": No such file"));
}

TEST_F(Offer, DoesNotStayWithAnImageThatIsCutForEver) {
    server.publish("1.06", large_image());
    ASSERT_TRUE(update("0.00"));
    store(large_image(), "1.05");
    for (int tries = 0; tries < 5; ++tries) {
        server.take_requests();
        EXPECT_TRUE(update("1.06"));
        EXPECT_TRUE(image() == large_image());
        EXPECT_EQ(server.take_requests().empty(), tries < 3);
    }
    server.publish("1.07", "newer");
    EXPECT_TRUE(update("1.06"));
    EXPECT_EQ(image(), "newer");
}

TEST_F(Offer, LeavesADeviceOnItsFirmwareCopyAfterAFirmwareChange) {
    server.publish("1.06", large_image());
    for (const char* recorded : {"1.05", "1.06"}) {
        platform_firmware = "T-1200.1";
        ASSERT_TRUE(update("0.00"));
        store(large_image(), recorded);

        platform_firmware = "T-1300.1";
        EXPECT_FALSE(update("1.06"));
        EXPECT_THAT(output(), HasSubstr("1.06 is not newer than 1.06"));
        platform_firmware = "";
        EXPECT_FALSE(update("1.06"));
        std::filesystem::remove(data + "/state.ini");
        std::filesystem::remove(data + "/update.ini");
    }
    platform_firmware = "T-1300.1";
    server.publish("1.07", "newer");
    EXPECT_TRUE(update("1.06"));
    // An installation under the new firmware that is cut is completed again.
    store("newer", "1.06");
    EXPECT_TRUE(update("1.07"));
}

TEST_F(Offer, IsNewerThanEveryCopyThatIsHere) {
    server.publish("1.06", large_image());
    write_file(places.firmware_manifest, "<Zel><Version>1.06</Version></Zel>");
    EXPECT_FALSE(update("0.00"));
    EXPECT_THAT(output(), HasSubstr("not newer than 1.06 of the firmware"));
    store(large_image(), "1.04");
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(), HasSubstr("not newer than 1.06 of the firmware"));
    EXPECT_THAT(image_files(), IsEmpty());

    write_file(places.firmware_manifest, "<Zel><Version>1.00</Version></Zel>");
    std::filesystem::remove(places.stored_image);
    ASSERT_TRUE(agent.set_version("1.06"));
    write_file(places.updatable_library, "a library");
    EXPECT_FALSE(update("0.00"));
    std::filesystem::remove(places.updatable_library);
    EXPECT_TRUE(update("0.00"));
}

TEST_F(Offer, FitsTheFirmware) {
    server.publish("1.06", large_image());
    const std::string index =
        "[image]\nversion=1.06\nsize=400000\nfile=zelADAgent-1.06.img\nsha256=";
    write_file(folder / "image", large_image());
    server.serve("/update.ini",
                 index + ad_sha256_file((folder / "image").c_str()) + "\nmin_firmware=T-1200.2\n");
    EXPECT_FALSE(update("1.05"));
    EXPECT_THAT(output(), HasSubstr("version 1.06 is refused: it needs firmware T-1200.2"));
    platform_firmware = "T-1200.10";
    EXPECT_TRUE(update("0.00"));
}

TEST_F(Offer, IsNotAnImageWhoseLibraryFailedToLoad) {
    server.publish("1.06", large_image());
    install("1.06");
    EXPECT_EQ(state().installed_sha256, ad_sha256_file(places.stored_image.c_str()));
    start(places.firmware_library);
    EXPECT_THAT(said, HasSubstr("library of version 1.06 failed to load"));
    std::filesystem::remove(places.updatable_library);

    EXPECT_FALSE(update("0.00"));
    EXPECT_THAT(output(), HasSubstr("refused: its library failed to load here"));
    store(large_image(), "1.05");
    EXPECT_FALSE(update("1.06"));
    EXPECT_THAT(output(), HasSubstr("the stored image is refused"));

    server.publish("1.07", "newer");
    EXPECT_TRUE(update("1.06"));
}

TEST_F(Offer, IsOnlyRefusedForALibraryThatNeverLoaded) {
    server.publish("1.06", large_image());
    install("1.06");
    const std::string other = folder / "elsewhere/agent.so";
    struct Case {
        const char* what;
        std::vector<std::pair<std::string, bool>>
            starts;  // library, whether the updatable is there
        bool bad;
    };
    const auto& updatable = places.updatable_library;
    const auto& builtin = places.firmware_library;
    const std::string installed = read_file(data + "/state.ini");
    for (const Case& c :
         {Case{"it fails", {{builtin, true}}, true},
          {"it loads", {{updatable, true}}, false},
          {"it loads, and fails later", {{updatable, true}, {builtin, true}}, false},
          {"a firmware change removed it", {{builtin, false}}, false},
          {"and another is there later", {{builtin, false}, {builtin, true}}, false},
          {"some other copy is loaded", {{other, true}}, false},
          {"and then it fails", {{other, true}, {builtin, true}}, true}}) {
        write_file(data + "/state.ini", installed);
        for (const auto& [library, was_there] : c.starts) start(library, was_there);
        EXPECT_EQ(state().bad.size(), c.bad ? 1U : 0U) << c.what;
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
