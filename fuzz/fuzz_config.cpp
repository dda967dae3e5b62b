// Fuzz target: arbitrary text as a properties configuration handed to CUDADevice. Building the
// device must either succeed or throw the configuration library's exceptions or
// CaptureDeviceException; anything else (another exception, a crash, a sanitizer finding) is a bug.
#include <ruvo/capture/CUDADevice.h>

#include <Poco/Exception.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream text(std::string(reinterpret_cast<const char*>(data), size));
    try {
        Poco::AutoPtr<Poco::Util::AbstractConfiguration> config(new Poco::Util::PropertyFileConfiguration(text));
        ruvo::capture::CUDADevice device(config);
        for (uint32_t i = 0; i < device.numDevices(); ++i) {
            (void)device.getControls(i);
            (void)device.getCapabilities(i);
        }
    } catch (const Poco::Exception&) {
    } catch (const ruvo::capture::CaptureDeviceException&) {
    }
    return 0;
}
