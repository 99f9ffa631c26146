// NRRD files.
#include "format.h"

#ifdef VOLUME_WITH_NRRD
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <teem/biff.h>
#include <teem/nrrd.h>

#include "failure.h"
#include "file.h"
#endif

namespace {

bool names(const std::string& path) {
    return endsWith(path, ".nrrd") || endsWith(path, ".nhdr");
}

#ifdef VOLUME_WITH_NRRD

using Image = std::unique_ptr<Nrrd, Nrrd* (*)(Nrrd*)>;

// The library keeps its messages, one line a cause, until somebody takes them; the last one is the cause itself.
std::string complaint() {
    const std::unique_ptr<char, void (*)(void*)> all(biffGetDone(NRRD), std::free);
    std::string text = all ? all.get() : "";
    while (!text.empty() && text.back() == '\n') text.pop_back();
    text.erase(0, text.rfind('\n') + 1);
    const size_t colon = text.find(": ");
    return text.substr(colon == std::string::npos ? 0 : colon + 2);
}

Stored storedAs(const std::string& path, int type) {
    switch (type) {
    case nrrdTypeChar:
        return Stored::i8;
    case nrrdTypeUChar:
        return Stored::u8;
    case nrrdTypeShort:
        return Stored::i16;
    case nrrdTypeUShort:
        return Stored::u16;
    case nrrdTypeInt:
        return Stored::i32;
    case nrrdTypeUInt:
        return Stored::u32;
    case nrrdTypeLLong:
        return Stored::i64;
    case nrrdTypeULLong:
        return Stored::u64;
    case nrrdTypeFloat:
        return Stored::f32;
    case nrrdTypeDouble:
        return Stored::f64;
    default:
        throw Failure(path + ": voxels of type " + airEnumStr(nrrdType, type) + " are not supported");
    }
}

// Where the voxels lie, in the world of a Volume: x to the right, y to the front, z up. A file may count x or y the
// other way round, or say no more than how far apart voxels are.
void place(const Nrrd& image, Volume& volume) {
    const bool left = image.space == nrrdSpaceLeftAnteriorSuperior || image.space == nrrdSpaceLeftPosteriorSuperior;
    const double sign[3] = {left ? -1. : 1., image.space == nrrdSpaceLeftPosteriorSuperior ? -1. : 1., 1};
    for (unsigned axis = 0; axis < image.dim; ++axis) {
        for (int r = 0; r < 3; ++r) {
            double& to = volume.world[size_t(4 * r) + axis];
            const double apart = image.axis[axis].spacing, direction = image.axis[axis].spaceDirection[r];
            if (image.spaceDim == 3 && std::isfinite(direction))
                to = sign[r] * direction + 0.; // no -0
            else if (int(axis) == r && std::isfinite(apart))
                to = apart;
        }
    }
    for (int r = 0; r < 3; ++r) {
        if (image.spaceDim == 3 && std::isfinite(image.spaceOrigin[r]))
            volume.world[size_t(4 * r + 3)] = sign[r] * image.spaceOrigin[r] + 0.;
    }
}

Volume read(const std::string& path) {
    readFile(path); // says what is wrong with a file that cannot be read at all
    const Image image(nrrdNew(), nrrdNuke);
    if (nrrdLoad(image.get(), path.c_str(), nullptr)) throw Failure(path + ": " + complaint());
    int size[3] = {1, 1, 1};
    if (image->dim < 2 || image->dim > 3)
        throw Failure(path + ": has " + std::to_string(image->dim) + " axes; a volume has three, or two");
    for (unsigned axis = 0; axis < image->dim; ++axis) {
        if (image->axis[axis].size > INT_MAX) throw Failure(path + ": is too large");
        size[axis] = int(image->axis[axis].size);
    }
    Volume volume = volumeOf(size[0], size[1], size[2], storedAs(path, image->type), image->data);
    place(*image, volume);
    return volume;
}

// Into memory first: writeFile leaves either the whole file or none.
void write(const std::string& path, const Volume& volume) {
    const Image image(nrrdNew(), nrrdNix); // the voxels stay the volume's
    const int type = volume.type == Voxel::u8    ? nrrdTypeUChar
                     : volume.type == Voxel::u16 ? nrrdTypeUShort
                                                 : nrrdTypeFloat;
    const size_t size[3] = {size_t(volume.width), size_t(volume.height), size_t(volume.depth)};
    bool failed = nrrdWrap_nva(image.get(), const_cast<unsigned char*>(volume.voxels.data()), type, 3, size) ||
                  nrrdSpaceSet(image.get(), nrrdSpaceRightAnteriorSuperior);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) image->axis[c].spaceDirection[r] = volume.world[size_t(4 * r + c)];
        image->spaceOrigin[r] = volume.world[size_t(4 * r + 3)];
    }
    const std::unique_ptr<NrrdIoState, NrrdIoState* (*)(NrrdIoState*)> how(nrrdIoStateNew(), nrrdIoStateNix);
    if (nrrdEncodingGzip->available()) nrrdIoStateEncodingSet(how.get(), nrrdEncodingGzip);
    char* memory = nullptr;
    size_t length = 0;
    std::FILE* stream = open_memstream(&memory, &length);
    if (!stream) throw Failure(path + ": cannot be written: no memory");
    failed = failed || nrrdWrite(stream, image.get(), how.get());
    failed |= std::fclose(stream) != 0;
    const std::unique_ptr<char, void (*)(void*)> bytes(memory, std::free);
    if (failed) throw Failure(path + ": " + complaint());
    writeFile(path, std::vector<unsigned char>(memory, memory + length));
}

#endif

} // namespace

#ifdef VOLUME_WITH_NRRD
extern const Format nrrd = {"NRRD", true, names, read, write};
#else
extern const Format nrrd = {"NRRD", false, names, nullptr, nullptr};
#endif
