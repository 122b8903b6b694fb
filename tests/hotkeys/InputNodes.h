#pragma once
// A umockdev test bed for the device nodes the brightness keys need: /dev/uinput comes and goes, which is what
// access to it means to a process that may open anything that exists (the tests run as root).

// GLib names a struct field `signals`, which Qt defines as a keyword.
#pragma push_macro("signals")
#undef signals
#include <umockdev.h>
#pragma pop_macro("signals")

#include <fcntl.h>
#include <unistd.h>

#include <string>

namespace LumoraTest {

class InputNodes {
public:
    InputNodes() : testbed_(umockdev_testbed_new())
    {
        gchar* root = umockdev_testbed_get_root_dir(testbed_);
        dev_ = std::string(root) + "/dev";
        g_free(root);
        g_mkdir_with_parents((dev_ + "/input").c_str(), 0755);  // there from boot on, keyboards or not
    }
    ~InputNodes() { g_object_unref(testbed_); }
    InputNodes(const InputNodes&) = delete;
    InputNodes& operator=(const InputNodes&) = delete;

    // The node appears (and is seen being created), or goes.
    void addUinput() { ::close(::open((dev_ + "/uinput").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0660)); }
    void removeUinput() { ::unlink((dev_ + "/uinput").c_str()); }
    // A bare event node that no device in sysfs stands behind.
    void addEventNode(int number)
    {
        const std::string node = dev_ + "/input/event" + std::to_string(number);
        ::close(::open(node.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0660));
    }

private:
    UMockdevTestbed* testbed_;
    std::string dev_;
};

}  // namespace LumoraTest
