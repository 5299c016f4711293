// A second codec library for the unmodified executable, independent of simcam: one output of
// 1280x720 runs. Writes each shown plane to the file OTHER_CODEC_FILES + "planeN".

#include <cstdio>
#include <cstdlib>
#include <string>

#include "null_codec.h"
#include "osd/qm7_codec.h"

static PostNotifyCallback notify;

extern "C" {

int32_t qm7_cl_post_notify_callback(PostNotifyCallback callback)
{
    notify = callback;
    return 0;
}

int32_t qm7_cl_post_set_notify(uint32_t)
{
    null_codec_set_post(0, 1280, 720);
    notify({0, 0, 0, 1});
    return 0;
}

int32_t qm7_cl_post_set_osd(uint32_t post, uint32_t osdId, OsdPosition)
{
    const std::string path =
        std::string(getenv("OTHER_CODEC_FILES")) + "plane" + std::to_string(osdId);
    const std::span<const uint8_t> plane = null_codec_plane(post, osdId);
    FILE *const file = fopen((path + ".new").c_str(), "wb");
    if (!file)
        abort();
    fwrite(plane.data(), 1, plane.size(), file);
    fclose(file);
    return rename((path + ".new").c_str(), path.c_str()); // a reader never sees half a plane
}

} // extern "C"
