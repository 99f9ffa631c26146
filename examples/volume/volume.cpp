// Volumes in memory, as raw files and (where the library for them is there) as NIfTI files.
#include "volume.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "failure.h"
#include "file.h"

#ifdef VOLUME_WITH_NIFTI
#include <nifti1_io.h>
#include <unistd.h>
#endif

const char* nameOf(Voxel type) {
    return type == Voxel::u8 ? "8u" : type == Voxel::u16 ? "16u" : "32f";
}

Volume Volume::make(int width, int height, int depth, Voxel type) {
    if (width < 1 || height < 1 || depth < 1) throw Failure("a volume needs at least one voxel along each axis");
    if (int64_t(width) * height > INT_MAX / bytesOf(type) ||
        double(width) * height * depth * bytesOf(type) > double(PTRDIFF_MAX) / 2)
        throw Failure("a volume of " + std::to_string(width) + "x" + std::to_string(height) + "x" +
                      std::to_string(depth) + " voxels is too large");
    Volume volume;
    volume.width = width;
    volume.height = height;
    volume.depth = depth;
    volume.type = type;
    volume.voxels.resize(volume.planeBytes() * size_t(depth));
    return volume;
}

float Volume::value(size_t i) const {
    switch (type) {
    case Voxel::u8:
        return at<uint8_t>()[i];
    case Voxel::u16:
        return at<uint16_t>()[i];
    default:
        return at<float>()[i];
    }
}

namespace {

bool endsWith(const std::string& name, const char* ending) {
    const size_t n = std::strlen(ending);
    return name.size() >= n && name.compare(name.size() - n, n, ending) == 0;
}

bool isNifti(const std::string& path) {
    return endsWith(path, ".nii") || endsWith(path, ".nii.gz");
}

Volume readRaw(const std::string& path, const RawFormat& raw) {
    if (!raw.given()) throw Failure(path + ": raw voxels need --size and --type");
    Volume volume = Volume::make(raw.width, raw.height, raw.depth, raw.type);
    std::vector<unsigned char> bytes = readFile(path);
    if (bytes.size() != volume.voxels.size())
        throw Failure(path + ": has " + std::to_string(bytes.size()) + " bytes, but the size and type given need " +
                      std::to_string(volume.voxels.size()));
    volume.voxels = std::move(bytes);
    return volume;
}

#ifdef VOLUME_WITH_NIFTI

using Image = std::unique_ptr<nifti_image, void (*)(nifti_image*)>;

// Takes a voxel type of the file to one of ours: 8 and 16 bits stay what they are where they can, everything else
// becomes float.
template <class T> void convert(const void* data, Volume& volume) {
    const T* from = static_cast<const T*>(data);
    for (size_t i = 0; i < volume.count(); ++i) {
        if (volume.type == Voxel::u8)
            volume.at<uint8_t>()[i] = uint8_t(from[i]);
        else if (volume.type == Voxel::u16)
            volume.at<uint16_t>()[i] = uint16_t(from[i]);
        else
            volume.at<float>()[i] = float(from[i]);
    }
}

bool anyNegative(const int16_t* data, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (data[i] < 0) return true;
    }
    return false;
}

// Whether the file holds so many bytes once decompressed: the NIfTI library fills what is missing with zeros.
bool holds(const std::string& path, size_t bytes) {
    znzFile file = znzopen(path.c_str(), "rb", endsWith(path, ".gz"));
    if (znz_isnull(file)) return false;
    std::vector<char> block(1 << 20);
    size_t total = 0;
    for (size_t n; total < bytes && (n = znzread(block.data(), 1, block.size(), file)) > 0 && n <= block.size();)
        total += n;
    znzclose(file);
    return total >= bytes;
}

Volume readNifti(const std::string& path) {
    nifti_set_debug_level(0); // its own messages would stand beside ours
    readFile(path);           // says what is wrong with a file that cannot be read at all
    Image image(nifti_image_read(path.c_str(), 1), nifti_image_free);
    if (!image || !image->data) throw Failure(path + ": is not a readable NIfTI file");
    if (!holds(path, size_t(image->iname_offset) + image->nvox * size_t(image->nbyper)))
        throw Failure(path + ": ends before its last voxel");
    if (image->nvox != size_t(image->nx) * image->ny * std::max(image->nz, 1))
        throw Failure(path + ": holds more than one volume");
    const size_t count = image->nvox;
    Voxel type = Voxel::f32;
    if (image->datatype == DT_UINT8) type = Voxel::u8;
    if (image->datatype == DT_UINT16) type = Voxel::u16;
    if (image->datatype == DT_INT16 && !anyNegative(static_cast<const int16_t*>(image->data), count)) type = Voxel::u16;
    Volume volume = Volume::make(image->nx, image->ny, std::max(image->nz, 1), type);
    switch (image->datatype) {
    case DT_UINT8:
        convert<uint8_t>(image->data, volume);
        break;
    case DT_INT8:
        convert<int8_t>(image->data, volume);
        break;
    case DT_UINT16:
        convert<uint16_t>(image->data, volume);
        break;
    case DT_INT16:
        convert<int16_t>(image->data, volume);
        break;
    case DT_INT32:
        convert<int32_t>(image->data, volume);
        break;
    case DT_UINT32:
        convert<uint32_t>(image->data, volume);
        break;
    case DT_FLOAT32:
        convert<float>(image->data, volume);
        break;
    case DT_FLOAT64:
        convert<double>(image->data, volume);
        break;
    default:
        throw Failure(path + ": voxels of type " + nifti_datatype_string(image->datatype) + " are not supported");
    }
    const mat44& m = image->sform_code > 0 ? image->sto_xyz : image->qto_xyz;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) volume.world[size_t(4 * r + c)] = m.m[r][c];
    }
    return volume;
}

// The NIfTI library writes by itself and reports nothing: its file is made beside the target, read back into memory and
// handed to writeFile, which leaves either the whole file or none.
void writeNifti(const std::string& path, const Volume& volume) {
    nifti_set_debug_level(0);
    const int dims[8] = {3, volume.width, volume.height, volume.depth, 1, 1, 1, 1};
    const int datatype = volume.type == Voxel::u8 ? DT_UINT8 : volume.type == Voxel::u16 ? DT_UINT16 : DT_FLOAT32;
    Image image(nifti_make_new_nim(dims, datatype, 1), nifti_image_free);
    if (!image) throw Failure(path + ": cannot be written: no memory");
    std::memcpy(image->data, volume.voxels.data(), volume.voxels.size());
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c)
            image->sto_xyz.m[r][c] = r < 3 ? float(volume.world[size_t(4 * r + c)]) : (c == 3 ? 1.f : 0.f);
    }
    image->sform_code = image->qform_code = NIFTI_XFORM_SCANNER_ANAT;
    image->xyz_units = NIFTI_UNITS_MM;
    nifti_mat44_to_quatern(image->sto_xyz, &image->quatern_b, &image->quatern_c, &image->quatern_d, &image->qoffset_x,
                           &image->qoffset_y, &image->qoffset_z, &image->dx, &image->dy, &image->dz, &image->qfac);
    image->pixdim[1] = image->dx;
    image->pixdim[2] = image->dy;
    image->pixdim[3] = image->dz;
    const std::string temporary =
        path + ".partial-" + std::to_string(getpid()) + (endsWith(path, ".gz") ? ".nii.gz" : ".nii");
    nifti_set_filenames(image.get(), temporary.c_str(), 0, 1);
    nifti_image_write(image.get());
    std::vector<unsigned char> bytes;
    try {
        bytes = readFile(temporary);
    } catch (const Failure&) {
        throw Failure(path + ": cannot be written");
    }
    std::remove(temporary.c_str());
    writeFile(path, bytes);
}

#else

Volume readNifti(const std::string& path) {
    throw Failure(path + ": this build has no NIfTI support; give raw voxels with --size and --type");
}
void writeNifti(const std::string& path, const Volume&) {
    throw Failure(path + ": this build has no NIfTI support");
}

#endif

} // namespace

Volume readVolume(const std::string& path, const RawFormat& raw) {
    return isNifti(path) ? readNifti(path) : readRaw(path, raw);
}

void writeVolume(const std::string& path, const Volume& volume) {
    if (isNifti(path))
        writeNifti(path, volume);
    else
        writeFile(path, volume.voxels);
}

void checkVolumeWritable(const std::string& path) {
#ifndef VOLUME_WITH_NIFTI
    if (isNifti(path)) throw Failure(path + ": this build has no NIfTI support");
#endif
    checkWritable(path);
}
