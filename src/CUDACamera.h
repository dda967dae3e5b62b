// One V4L2 camera delivering raw 10-bit Bayer frames into CUDA managed memory: its device
// lifecycle, the pool of capture buckets, the read-and-release cycle that runs the image
// pipeline and 3A on every frame, and its runtime controls.
#pragma once

#include "3a/CurveWhiteBalance.h"
#include "3a/Metering.h"
#include "CUDAKernels.h"
#include "CameraParams.h"
#include "io/DeviceIo.h"
#include "isp/LaunchGeometry.h"
#include "sensor/PixelFormats.h"
#include "sensor/SensorProfile.h"

#include <ruvo/capture/Capabilities.h>
#include <ruvo/capture/Frame.h>

#include <Poco/AutoPtr.h>
#include <Poco/Event.h>
#include <Poco/Logger.h>
#include <Poco/Mutex.h>
#include <Poco/Util/AbstractConfiguration.h>

#include <cuda_runtime.h>
#include <linux/videodev2.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace capture {

class CUDACamera {
public:
    using Params = CUDACameraParams;

    // The memory the driver writes a frame into: the bucket's raw input itself, or, when the
    // driver's rows are padded or its buffer cannot be read by the pipeline where it lies, a
    // buffer whose rows are copied into the raw input after each dequeue.
    struct V4L2Buffer {
        void* data = nullptr;
        uint32_t size = 0;        // bytes queued (user pointers) or mapped (memory-mapped)
        uint32_t length = 0;      // pixels
        uint32_t stride = 0;      // bytes from one row to the next, as the driver writes them
        bool mapped = false;      // the driver's buffer, mapped into this process
        bool registered = false;  // registered with the CUDA runtime: the raw input reads it in place
        bool staging = false;     // the camera's own memory apart from the raw input
    };

    // Managed allocation: one address for host and device.
    struct CUDABuffer {
        void* host = nullptr;
        void* device = nullptr;
        uint32_t size = 0;    // bytes
        uint32_t length = 0;  // elements
    };

    // Geometry of one output image.
    struct CUDAFrame {
        uint32_t width = 0;        // visible width
        uint32_t height = 0;       // visible height
        uint32_t cuda_height = 0;  // rows allocated
        uint32_t stride = 0;       // equal to width
        uint32_t size = 0;         // bytes
        uint8_t* data = nullptr;
    };

    // Everything one frame needs from the sensor to the client.
    struct Bucket {
        enum Status { INVALID = 0, FREE = 1, USED = 2 };

        struct OutputBuffer {
            OutputBuffer(uint32_t width, uint32_t height, uint32_t length, uint32_t bytesPerPx, uint32_t cuda_height);
            CUDABuffer cudaOut;
            CUDAFrame frame;
        };

        // Read by the stopping thread while capture and client threads change it.
        std::atomic<Status> status{INVALID};
        uint32_t width = 0;
        uint32_t height = 0;
        uint32_t cuda_height = 0;  // rows of the GPU input: 384 for 380, 1152 for 1080
        uint32_t cropLeft = 0;     // where the processed frame starts in the driver's frame
        uint32_t cropTop = 0;
        V4L2Buffer v4l2;
        CUDABuffer cudaIn;     // raw frame: 16-bit samples, the same memory as v4l2.data
        CUDABuffer delivered;  // the frame in a format converted into cudaIn; empty for the default layout
        std::vector<OutputBuffer> buffers;
        std::vector<std::vector<unsigned char*>> extraCudaBuffers;  // scratch device memory per output
        std::vector<std::vector<int>> extraCudaBufferLengths;
        std::vector<unsigned char**> extraCudaDevicePtrs;  // plain-array copies for the dispatcher
        std::vector<int*> extraCudaDevicePtrsLengths;
        std::vector<uint32_t> extraCudaDevicePtrCounts;
        std::vector<unsigned char*> cudaOutDevicePtrs;
        Feedback feedback;
        uint32_t index = 0;  // position in the pool = V4L2 buffer index
        std::atomic<uint32_t> releaseCounter{0};
        std::vector<bool> releaseState;  // per output buffer: given back by the client
        TimePoint timestamp;
        cudaStream_t stream = nullptr;
        Poco::FastMutex mutex;  // guards the release bookkeeping
    };

    CUDACamera(Poco::AutoPtr<Poco::Util::AbstractConfiguration> config, int index);
    ~CUDACamera();
    CUDACamera(const CUDACamera&) = delete;
    CUDACamera& operator=(const CUDACamera&) = delete;

    void start();
    void stop();
    // Ends a camera whose start() or stop() failed part way: stops streaming, waits for buffers
    // lent to clients when `waitForClients`, frees the bucket memory and closes the node. Each
    // step's failure is logged, none is thrown. The destructor does this, without waiting, for a
    // camera that was not stopped.
    void abandon(bool waitForClients);

    // The next processed bucket, or null on time-out or when no buffer is ready.
    Bucket* read();
    // Gives a whole bucket back to the driver.
    void release(unsigned bucket);
    // Gives one output buffer back; the last distinct one gives the bucket back.
    void release(unsigned bucket, unsigned buffer);
    void waitForBuffersToBeReturned();
    // Waits until `deadline` at most; true once no client holds a bucket.
    bool waitForBuffersToBeReturned(std::chrono::steady_clock::time_point deadline);
    // Ends capture and waits until `deadline` for clients to give back their buffers: true once
    // every bucket is back and the node closed (at once for a closed camera); false with capture
    // off and the held buckets' memory kept, to be finished by another call or by stop().
    bool stopBy(std::chrono::steady_clock::time_point deadline);
    // Each bucket lent to clients with the output buffers not yet given back.
    std::vector<std::pair<uint32_t, std::vector<uint32_t>>> heldBuckets();

    Controls getControls();
    // Assigns the current controls to `into` (reusing its storage: no allocation once sized).
    void copyControls(Controls& into);
    Capabilities getCapabilities();
    void setControls(const Controls& controls);
    bool setControls(const std::string& preset);

    int xioctl(unsigned long request, void* argument);
    v4l2_queryctrl queryControl(uint32_t id);
    int32_t getControl(uint32_t id);
    void setControl(uint32_t id, int32_t value);

    // The sensor profile in use, as settled against the driver at the last start, and the sensor
    // controls the pipeline does in the sensor's place ("channel gains", "black level",
    // "luminance statistic").
    const sensor::SensorProfile& sensorProfile() const { return _profile; }
    std::vector<std::string> emulatedControls() const;
    // The automatic white balance's mode: awb.mode, or without it the sensor profile's.
    WhiteBalanceMode whiteBalanceMode() const;

    const std::string& getName() const { return _params.name; }
    const Params& getParams() const { return _params; }

    // Uniform draws from the camera's engine (Metering samples).
    float noise();
    int randRow(const dlib::rectangle& rect);
    int randCol(const dlib::rectangle& rect);

private:
    friend class CUDACameraTestAccess;

    struct AeState {
        int32_t exposure = 0;
        float gain = 0.0f;
        bool controlNeedsUpdate = false;
    };
    struct AwbState {
        int32_t blueGain = 0;
        int32_t redGain = 0;
        bool controlNeedsUpdate = false;
    };
    // White balance along the colour-temperature curve: the gains relative to green last written
    // (none before it first ran), and the green register they were written against. Not primed:
    // the sensor's gains are not yet the ones held here.
    struct CurveAwbState {
        bool started = false;
        bool primed = false;
        metering::ChannelGains gains;
        int32_t green = 1024;
    };

    void open_device();
    void init_device();
    void init_mem();  // at the negotiated size (init_device)
    // Driver buffers (CUDACameraBuffers.cpp).
    uint32_t requestBuffers();
    void mapDriverBuffer(Bucket& bucket, uint32_t cudaHeight);
    void attachUserBuffer(Bucket& bucket);
    void releaseDriverBuffer(Bucket& bucket);
    void queueBuffer(Bucket& bucket, const char* context);
    bool acceptFrame(const v4l2_buffer& buf, Bucket& bucket);
    // Raw format (CUDACameraFormat.cpp).
    std::vector<uint32_t> offeredFormats();
    std::vector<OfferedFrameSize> offeredSizes(uint32_t fourcc);
    bool driverGives(uint32_t width, uint32_t height) const;
    void describeFormats(Capabilities& capabilities);
    sensor::PixelFormat chooseRawFormat();
    v4l2_format negotiateFormat();
    void allocateDelivered(Bucket& bucket);
    void copyIn(Bucket& bucket) const;
    void applyLevels(Bucket& bucket) const;
    void deinit_mem();
    // Sensor profile and the controls done in the pipeline (CUDACameraProfile.cpp).
    bool hasControl(uint32_t id);
    int64_t getControl64(uint32_t id);
    void resolveSensorProfile();
    void adaptGenericProfile();
    void resolveLineTime(uint32_t width);
    void resetSensorControls();
    int32_t readChannelGain(uint32_t id);
    void writeChannelGain(uint32_t id, int32_t value);
    v4l2_queryctrl channelGainRange(uint32_t id);
    float averageLuminance(const Bucket& bucket);
    metering::ColourShape colourShape() const;
    bool rawLevels(kernels::RawLevels& levels) const;
    void deinit_device();
    void start_capturing();
    void stop_capturing();
    void close_device();
    void init_sample_distribution();
    void init_window_weights();

    void allocateOutputs(Bucket& bucket, uint32_t width, uint32_t cudaHeight, uint32_t height);
    void process(Bucket& bucket);
    void fillFeedback(Bucket& bucket);
    void sendSkinDiagnostics(const Bucket& bucket);
    void programMeteringRectangle(const std::vector<ruvo::util::WeightedRegion>& regions);
    void applyFlips();
    void restartKeepingSensorValues(const Controls& c);
    void evaluate_3A(const Bucket& bucket);

    // Steps of evaluate_3A (CUDACamera3A.cpp).
    void checkSampleTable() const;
    metering::YuvImage fullImage(const Bucket& bucket) const;
    void applyManualExposure();
    void restoreExposure();
    void autoExposure(const Bucket& bucket, uint32_t offsetX, uint32_t offsetY);
    float sensorLuminance(const Bucket& bucket);
    const uint32_t* skinHistogram(const Bucket& bucket) const;
    float meteredLuminance(const Bucket& bucket, const uint32_t* histogram, uint32_t offsetX, uint32_t offsetY);
    void publishExpStat();
    void publishExpMeta(const Bucket& bucket, const metering::SkinStats& skin, float meanNorm);
    void updateExposure(float err, float avgY);
    void updateGain(float err);
    void applyManualWhiteBalance();
    void restoreWhiteBalance();
    void autoWhiteBalance(const Bucket& bucket, uint32_t offsetX, uint32_t offsetY);
    void curveWhiteBalance(const Bucket& bucket, uint32_t offsetX, uint32_t offsetY);
    void writeCurveGains();

    Poco::Logger& _logger;
    Params _params;
    int _fd = -1;
    std::vector<Bucket> _buckets;
    Poco::FastMutex _mutexControls;
    Controls _controls;
    AeState _aeState;
    AwbState _awbState;
    CurveAwbState _awbCurve;
    metering::CurveScratch _curveScratch;
    metering::LinearLuma _linearLuma;              // the luminance's tables for the live gammas, under _mutexControls
    const Bucket* _luminanceInFeedback = nullptr;  // the frame whose feedback holds its luminance, while 3A runs
    Poco::Event _releaseEvent{Poco::Event::EVENT_AUTORESET};
    bool _isRunning = false;
    std::mt19937 _prng;
    std::vector<std::pair<int, int>> _initialSampleDist;  // (column, row) in full-resolution pixels
    uint32_t _sampleTableWidth = 0;                       // frame size the sample table was drawn for
    uint32_t _sampleTableHeight = 0;
    float _currExpGain = 0.0f;
    float _currBlueGain = 0.0f;
    float _currRedGain = 0.0f;
    int _index = 0;
    std::vector<float> winWeights;  // centre prior per metering region, row-major
    float sumWinWeights = 0.0f;
    metering::MeteringScratch _meteringScratch;  // metering state, reused frame to frame
    float _aeMeteredY = 0.0f;       // luminance (0..1) that the last automatic exposure evaluation measured
    std::shared_ptr<DeviceIo> _io;  // the only way to the device node
    uint32_t _memoryType = V4L2_MEMORY_USERPTR;  // the queue's, as granted at REQBUFS
    uint32_t _bytesPerLine = 0;                  // of the driver's format
    uint32_t _sizeImage = 0;
    sensor::PixelFormat _pixelFormat = sensor::defaultLayoutFormat();  // as negotiated
    std::vector<uint32_t> _offeredFormats;                             // the driver's list at the last start
    sensor::SensorProfile _profile = sensor::defaultSensorProfile();   // as settled at the last start
    float _blackLevel = 0.0f;                                          // on the 14-bit scale
    std::array<std::atomic<int32_t>, 3> _digitalGains{};  // red, green, blue in 1/1024, without channel-gain controls
    bool _meteringWindowLogged = false;
    std::vector<OfferedFrameSize> _offeredSizes;  // its sizes for the format in use
    kernels::FrameCrop _crop;                     // the processed part of the driver's frame, as negotiated
    int64_t _nextSequence = -1;                   // the driver sequence expected next; -1 before the first frame
    uint64_t _droppedFrames = 0;
    uint64_t _errorBuffers = 0;
};

}  // namespace capture
}  // namespace ruvo
