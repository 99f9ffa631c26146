// Kinds of volume files with a header of their own, each read and written through a library made for it.
#pragma once
#include <string>

#include "volume.h"

struct Format {
    const char* name;
    bool built;                             // whether this program was built with the library
    bool (*names)(const std::string& path); // whether a file of that name is of this kind
    Volume (*read)(const std::string& path);
    void (*write)(const std::string& path, const Volume& volume);
};

extern const Format nifti; // .nii, .nii.gz
extern const Format nrrd;  // .nrrd; .nhdr (a header beside its voxels) is read only

bool endsWith(const std::string& name, const char* ending);

// What files hold.
enum class Stored { i8, u8, i16, u16, i32, u32, i64, u64, f32, f64 };

// A volume of voxels from a file: 8 and 16 bits stay what they are where they can, everything else becomes float.
Volume volumeOf(int width, int height, int depth, Stored type, const void* voxels);
