// NIfTI files.
#include "format.h"

#include <algorithm>

#ifdef VOLUME_WITH_NIFTI
#include <cstdio>
#include <cstring>
#include <memory>
#include <nifti1_io.h>
#include <unistd.h>

#include "failure.h"
#include "file.h"
#endif

namespace {

bool names(const std::string& path) {
    return endsWith(path, ".nii") || endsWith(path, ".nii.gz");
}

#ifdef VOLUME_WITH_NIFTI

using Image = std::unique_ptr<nifti_image, void (*)(nifti_image*)>;

Stored storedAs(const std::string& path, int datatype) {
    switch (datatype) {
    case DT_INT8:
        return Stored::i8;
    case DT_UINT8:
        return Stored::u8;
    case DT_INT16:
        return Stored::i16;
    case DT_UINT16:
        return Stored::u16;
    case DT_INT32:
        return Stored::i32;
    case DT_UINT32:
        return Stored::u32;
    case DT_INT64:
        return Stored::i64;
    case DT_UINT64:
        return Stored::u64;
    case DT_FLOAT32:
        return Stored::f32;
    case DT_FLOAT64:
        return Stored::f64;
    default:
        throw Failure(path + ": voxels of type " + nifti_datatype_string(datatype) + " are not supported");
    }
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

Volume read(const std::string& path) {
    nifti_set_debug_level(0); // its own messages would stand beside ours
    readFile(path);           // says what is wrong with a file that cannot be read at all
    Image image(nifti_image_read(path.c_str(), 1), nifti_image_free);
    if (!image || !image->data) throw Failure(path + ": is not a readable NIfTI file");
    if (!holds(path, size_t(image->iname_offset) + image->nvox * size_t(image->nbyper)))
        throw Failure(path + ": ends before its last voxel");
    if (image->nvox != size_t(image->nx) * image->ny * std::max(image->nz, 1))
        throw Failure(path + ": holds more than one volume");
    Volume volume =
        volumeOf(image->nx, image->ny, std::max(image->nz, 1), storedAs(path, image->datatype), image->data);
    const mat44& m = image->sform_code > 0 ? image->sto_xyz : image->qto_xyz;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) volume.world[size_t(4 * r + c)] = m.m[r][c];
    }
    return volume;
}

// The NIfTI library writes by itself and reports nothing: its file is made beside the target, read back into memory and
// handed to writeFile, which leaves either the whole file or none.
void write(const std::string& path, const Volume& volume) {
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

#endif

} // namespace

#ifdef VOLUME_WITH_NIFTI
extern const Format nifti = {"NIfTI", true, names, read, write};
#else
extern const Format nifti = {"NIfTI", false, names, nullptr, nullptr};
#endif
