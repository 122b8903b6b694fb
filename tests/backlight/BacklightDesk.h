#pragma once
// A sysfs tree with backlight devices and DRM connectors, built in umockdev's test bed. The test runs under
// umockdev-wrapper, so the product's plain open/read/opendir/realpath on /sys land in this tree, and so do the
// test's own file helpers below.

#include <umockdev.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace BacklightDesk {

// Device paths below /sys.
inline const std::string kPanelConnector = "/devices/pci0000:00/0000:00:02.0/drm/card0/card0-eDP-1";
inline const std::string kPanelBacklight = kPanelConnector + "/intel_backlight";
inline const std::string kAcpiBacklight = "/devices/LNXSYSTM:00/LNXSYBUS:00/PNP0A08:00/LNXVIDEO:00/backlight/acpi_video0";

class Testbed {
public:
    Testbed() : bed_(umockdev_testbed_new()) {}
    ~Testbed() { g_object_unref(bed_); }
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    // Adds umockdev records ("P:", "E:", "A:" lines, records separated by blank lines).
    void add(const std::string& records)
    {
        GError* error = nullptr;
        gboolean ok = umockdev_testbed_add_from_string(bed_, records.c_str(), &error);
        EXPECT_TRUE(ok) << (error ? error->message : "");
        if (error)
            g_error_free(error);
    }

    // Removes every device.
    void clear() { umockdev_testbed_clear(bed_); }

    // The test bed's own file for a path below /sys, to inspect or change the tree from the test side without
    // going through the preload.
    std::string file(const std::string& sysPath) const
    {
        gchar* root = umockdev_testbed_get_root_dir(bed_);
        std::string path = std::string(root) + sysPath;
        g_free(root);
        return path;
    }

private:
    UMockdevTestbed* bed_;
};

// A DRM card and one connector `name` (e.g. "card0-eDP-1") below it.
inline std::string connectorRecord(const std::string& devpath)
{
    return "P: " + devpath + "\nE: SUBSYSTEM=drm\nE: DEVTYPE=drm_connector\nA: status=connected\nA: enabled=enabled\n\n";
}

// A backlight class device; an empty `type` leaves the attribute out.
inline std::string backlightRecord(const std::string& devpath, const std::string& type, const std::string& brightness,
                                   const std::string& max)
{
    std::string r = "P: " + devpath + "\nE: SUBSYSTEM=backlight\n";
    if (!type.empty())
        r += "A: type=" + type + "\n";
    r += "A: brightness=" + brightness + "\nA: max_brightness=" + max + "\n\n";
    return r;
}

inline std::string classPath(const std::string& name)
{
    return "/sys/class/backlight/" + name;
}

inline std::string attributePath(const std::string& name, const std::string& attribute)
{
    return classPath(name) + "/" + attribute;
}

// Whole file, or absent when it cannot be opened.
inline std::optional<std::string> readFile(const std::string& path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::string text;
    char buffer[256];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<std::size_t>(n));
    ::close(fd);
    return text;
}

inline void writeFile(const std::string& path, const std::string& text)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(fd);
}

inline void removeFile(const std::string& path)
{
    ASSERT_EQ(::unlink(path.c_str()), 0) << path;
}

// The decimal value in a sysfs attribute, trailing newline ignored; -1 when missing or not a number.
inline long readValue(const std::string& path)
{
    auto text = readFile(path);
    if (!text || text->empty())
        return -1;
    char* end = nullptr;
    long v = std::strtol(text->c_str(), &end, 10);
    if (end == text->c_str() || (*end != '\0' && *end != '\n'))
        return -1;
    return v;
}

}  // namespace BacklightDesk
