// The program as a user meets it: what it writes, and what it says about input that it cannot use.
#include "program_test.h"

namespace {

class VolumeProgram : public ProgramTest {
protected:
    // A raw volume of 8-bit voxels with the value of their place.
    std::string ramp(int width, int height, int depth) const {
        std::string voxels;
        for (int i = 0; i < width * height * depth; ++i) voxels += char(i % 251);
        return voxels;
    }
    void write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path("work/" + name), std::ios::binary) << bytes;
    }
    // Through two files with headers and back; and half a file is refused.
    void keepsVoxels(const std::string& first, const std::string& second) {
        write("in.raw", ramp(20, 18, 17));
        ASSERT_EQ(run("resize in.raw " + first + " --size 20x18x17 --factor 1").code, 0);
        ASSERT_EQ(run("resize " + first + " " + second + " --factor 1").code, 0);
        ASSERT_EQ(run("resize " + second + " c.raw --factor 1").code, 0);
        EXPECT_EQ(slurp(path("work/c.raw")), ramp(20, 18, 17));
        const std::string whole = slurp(path("work/" + second));
        write("broken." + second, whole.substr(0, std::min<size_t>(500, whole.size() / 2)));
        expectRefused("resize broken." + second + " out.raw --factor 1", "broken." + second);
    }
};

} // namespace

TEST_F(VolumeProgram, FactorOneCopies) {
    write("in.raw", ramp(20, 18, 17));
    for (const char* how : {"nearest", "linear", "cubic"}) {
        const Outcome outcome =
            run(std::string("resize in.raw out.raw --size 20x18x17 --factor 1 --interpolation ") + how);
        ASSERT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_EQ(slurp(path("work/out.raw")), ramp(20, 18, 17)) << how;
    }
}

TEST_F(VolumeProgram, FactorTwoDoublesEachVoxelWhereItIsNearest) {
    write("in.raw", ramp(5, 4, 3));
    ASSERT_EQ(run("resize in.raw out.raw --size 5x4x3 --factor 2 --interpolation nearest --picture sheet.png").code, 0);
    const std::string in = ramp(5, 4, 3), out = slurp(path("work/out.raw"));
    ASSERT_EQ(out.size(), size_t(10 * 8 * 6));
    for (int z = 0; z < 6; ++z) {
        for (int y = 0; y < 8; ++y) {
            for (int x = 0; x < 10; ++x)
                ASSERT_EQ(out[size_t((z * 8 + y) * 10 + x)], in[size_t((z / 2 * 4 + y / 2) * 5 + x / 2)]);
        }
    }
    EXPECT_EQ(slurp(path("work/sheet.png")).substr(1, 3), "PNG");
}

TEST_F(VolumeProgram, TheNumberOfThreadsDoesNotMatter) {
    write("in.raw", ramp(40, 30, 35));
    ASSERT_EQ(run("resize in.raw a.raw --size 40x30x35 --factor 1.3,0.8,2.2 --threads 1").code, 0);
    ASSERT_EQ(run("resize in.raw b.raw --size 40x30x35 --factor 1.3,0.8,2.2 --threads 3").code, 0);
    EXPECT_EQ(slurp(path("work/a.raw")), slurp(path("work/b.raw")));
}

TEST_F(VolumeProgram, AKernelOfOneCopiesAndAFlatVolumeStaysFlat) {
    write("in.raw", ramp(9, 8, 7));
    write("one.txt", "# identity\n1 1 1 1\n1\n");
    ASSERT_EQ(run("filter in.raw out.raw --size 9x8x7 --kernel one.txt").code, 0);
    EXPECT_EQ(slurp(path("work/out.raw")), ramp(9, 8, 7));
    write("flat.raw", std::string(9 * 8 * 7, '\x2a'));
    for (const char* kernel : {"box", "gauss", "sharpen"}) {
        ASSERT_EQ(run(std::string("filter flat.raw out.raw --size 9x8x7 --kernel ") + kernel).code, 0);
        EXPECT_EQ(slurp(path("work/out.raw")), std::string(9 * 8 * 7, '\x2a')) << kernel;
    }
    for (const char* kernel : {"laplace", "sobel"}) {
        ASSERT_EQ(run(std::string("filter flat.raw out.raw --size 9x8x7 --kernel ") + kernel).code, 0);
        EXPECT_EQ(slurp(path("work/out.raw")), std::string(9 * 8 * 7, '\0')) << kernel;
    }
}

TEST_F(VolumeProgram, WarpsByNothingByWholeVoxelsAndByRightAngles) {
    const std::string in = ramp(20, 18, 17);
    write("in.raw", in);
    const auto at = [](const std::string& v, int x, int y, int z) { return v[size_t((z * 18 + y) * 20 + x)]; };
    for (const char* how : {"nearest", "linear", "cubic", "cubic6"}) {
        const std::string rest = std::string(" --size 20x18x17 --picture sheet.png --interpolation ") + how;
        ASSERT_EQ(run("warp in.raw out.raw --rotate 360" + rest).code, 0);
        EXPECT_EQ(slurp(path("work/out.raw")), in) << how;
        for (const char* move : {"--shift 3,-2,1", "--matrix 1,0,0,3,0,1,0,-2,0,0,1,1"}) {
            ASSERT_EQ(run("warp in.raw out.raw " + std::string(move) + rest).code, 0);
            const std::string out = slurp(path("work/out.raw"));
            ASSERT_EQ(out.size(), in.size());
            for (int z = 0; z < 17; ++z) {
                for (int y = 0; y < 18; ++y) {
                    for (int x = 0; x < 20; ++x)
                        ASSERT_EQ(at(out, x, y, z), x >= 3 && y < 16 && z >= 1 ? at(in, x - 3, y + 2, z - 1) : '\0');
                }
            }
        }
        ASSERT_EQ(run("warp in.raw out.raw --rotate 180 --axis 0,2,0" + rest).code, 0);
        const std::string out = slurp(path("work/out.raw"));
        for (int z = 0; z < 17; ++z) {
            for (int y = 0; y < 18; ++y) {
                for (int x = 0; x < 20; ++x) ASSERT_EQ(at(out, x, y, z), at(in, 19 - x, y, 16 - z)) << how;
            }
        }
    }
    EXPECT_EQ(slurp(path("work/sheet.png")).substr(1, 3), "PNG");
}

TEST_F(VolumeProgram, RemapsByAFieldAndByATwist) {
    const std::string in = ramp(20, 18, 17);
    write("in.raw", in);
    // Each voxel from two voxels further along x, and one before along z.
    std::vector<float> field(3 * in.size());
    for (size_t i = 0; i < in.size(); ++i) field[i] = 2, field[2 * in.size() + i] = -1;
    write("field.raw", std::string(reinterpret_cast<const char*>(field.data()), field.size() * sizeof(float)));
    for (const char* how : {"nearest", "linear", "cubic"}) {
        const std::string rest = std::string(" --size 20x18x17 --interpolation ") + how;
        ASSERT_EQ(run("remap in.raw out.raw --field field.raw" + rest).code, 0);
        const std::string out = slurp(path("work/out.raw"));
        ASSERT_EQ(out.size(), in.size());
        for (int i = 0; i < int(in.size()); ++i) {
            const bool there = i % 20 < 18 && i >= 360;
            ASSERT_EQ(out[size_t(i)], there ? in[size_t(i + 2 - 360)] : '\0') << i;
        }
        ASSERT_EQ(run("remap in.raw out.raw --twist 0" + rest).code, 0);
        EXPECT_EQ(slurp(path("work/out.raw")), in);
    }
    // The first slice stays, the last is turned upside down.
    ASSERT_EQ(run("remap in.raw out.raw --size 20x18x17 --twist 180 --threads 3").code, 0);
    const std::string out = slurp(path("work/out.raw"));
    EXPECT_EQ(out.substr(0, 360), in.substr(0, 360));
    EXPECT_EQ(out.substr(16 * 360), std::string(in.rbegin(), in.rbegin() + 360));
    ASSERT_EQ(run("remap in.raw one.raw --size 20x18x17 --twist 180 --threads 1").code, 0);
    EXPECT_EQ(slurp(path("work/one.raw")), out);
}

#ifdef VOLUME_WITH_NIFTI
TEST_F(VolumeProgram, NiftiKeepsVoxelsAndPlace) {
    keepsVoxels("a.nii.gz", "b.nii");
    write("text.nii", "this is no scan");
    expectRefused("resize text.nii out.raw --factor 1", "text.nii");
}
#endif

#ifdef VOLUME_WITH_NRRD
TEST_F(VolumeProgram, NrrdKeepsVoxelsAndPlace) {
    keepsVoxels("a.nrrd", "b.nrrd");
    write("text.nrrd", "this is no scan");
    expectRefused("resize text.nrrd out.raw --factor 1", "text.nrrd");
}

TEST_F(VolumeProgram, NrrdHeadersAsOthersWriteThem) {
    // Two bytes a voxel, the high one first, beside the header.
    write("in.raw", ramp(20, 18, 17));
    std::string wide;
    for (const char c : ramp(20, 18, 17)) wide += std::string("\x01", 1) + c;
    write("wide.bin", wide);
    const auto header = [](const std::string& rest) {
        return "NRRD0004\ndimension: 3\nsizes: 20 18 17\nencoding: raw\n" + rest;
    };
    write("wide.nhdr", header("type: unsigned short\nendian: big\nspacings: 1 1 2.5\ndata file: wide.bin\n"));
    ASSERT_EQ(run("resize wide.nhdr out.raw --factor 1").code, 0);
    const std::string out = slurp(path("work/out.raw"));
    ASSERT_EQ(out.size(), wide.size());
    for (size_t i = 0; i < out.size(); i += 2) {
        ASSERT_EQ(out[i], wide[i + 1]);
        ASSERT_EQ(out[i + 1], '\x01');
    }
    // The spacings become the directions of axes; those of the other two sides are turned round.
    ASSERT_EQ(run("resize wide.nhdr out.nrrd --factor 1").code, 0);
    EXPECT_NE(slurp(path("work/out.nrrd")).find("space directions: (1,0,0) (0,1,0) (0,0,2.5)\n"), std::string::npos);
    write("turned.nrrd",
          header("type: unsigned char\nspace: left-posterior-superior\nspace directions: (2,0,0) (0,3,0) "
                 "(0,0,4)\nspace origin: (5,6,7)\n\n") +
              ramp(20, 18, 17));
    ASSERT_EQ(run("resize turned.nrrd out.nrrd --factor 1").code, 0);
    const std::string turned = slurp(path("work/out.nrrd"));
    EXPECT_NE(turned.find("space: right-anterior-superior\n"), std::string::npos);
    EXPECT_NE(turned.find("space directions: (-2,0,0) (0,-3,0) (0,0,4)\n"), std::string::npos);
    EXPECT_NE(turned.find("space origin: (-5,-6,7)\n"), std::string::npos);

    write("four.nrrd", "NRRD0004\ntype: float\ndimension: 4\nsizes: 1 1 1 1\nencoding: raw\nendian: little\n\n1234");
    expectRefused("resize four.nrrd out.raw --factor 1", "four.nrrd");
    write("blocks.nrrd", "NRRD0004\ntype: block\nblock size: 2\ndimension: 3\nsizes: 1 1 1\nencoding: raw\n\n12");
    expectRefused("resize blocks.nrrd out.raw --factor 1", "blocks.nrrd");
    write("lost.nhdr", header("type: unsigned char\ndata file: lost.bin\n"));
    expectRefused("resize lost.nhdr out.raw --factor 1", "lost.nhdr");
    expectRefused("resize turned.nrrd out.nhdr --factor 1", "out.nhdr");
}
#endif

TEST_F(VolumeProgram, BadInputIsRefusedInOneLine) {
    write("in.raw", ramp(5, 4, 3));
    write("bad.txt", "3 3 3 1\n1 2 3\n");
    write("zero.txt", "1 1 1 0\n1\n");
    expectRefused("resize none.raw out.raw --size 5x4x3 --factor 2", "none.raw");
    expectRefused("resize in.raw out.raw --factor 2", "--size");
    expectRefused("resize in.raw out.raw --size 5x4 --factor 2", "--size");
    expectRefused("resize in.raw out.raw --size 0x4x3 --factor 2", "--size");
    expectRefused("resize in.raw out.raw --size 5x4x4 --factor 2", "60 bytes");
    expectRefused("resize in.raw out.raw --size 5x4x3 --factor 1,2", "--factor");
    expectRefused("resize in.raw out.raw --size 5x4x3 --factor 0", "--factor");
    expectRefused("resize in.raw out.raw --size 5x4x3 --factor nan", "factor");
    expectRefused("resize in.raw out.raw --size 5x4x3 --factor 0.01", "no voxel");
    expectRefused("resize in.raw out.raw --size 5x4x3 --factor 2 --interpolation best", "--interpolation");
    expectRefused("resize in.raw missing/out.raw --size 5x4x3 --factor 2", "missing/out.raw");
    expectRefused("resize in.raw out.raw --size 5x4x3 --factor 2 --picture missing/sheet.png", "missing/sheet.png");
    expectRefused("filter in.raw out.raw --size 5x4x3 --kernel bad.txt", "bad.txt");
    expectRefused("filter in.raw out.raw --size 5x4x3 --kernel zero.txt", "zero.txt");
    expectRefused("filter in.raw out.raw --size 5x4x3 --kernel none.txt", "none.txt");
    expectRefused("warp in.raw out.raw --size 5x4x3 --matrix 1,2,3", "--matrix");
    expectRefused("warp in.raw out.raw --size 5x4x3 --matrix 1,0,0,0,1,0,0,0,1,0,0,0", "no volume");
    expectRefused("warp in.raw out.raw --size 5x4x3 --shift 1,nan,0", "--shift");
    expectRefused("warp in.raw out.raw --size 5x4x3 --rotate nan", "--rotate");
    expectRefused("warp in.raw out.raw --size 5x4x3 --scale 0", "--scale");
    for (const std::string singular : {"0,0,0,0,0,0,0,0,0,0,0,0", "1,1,0,0,1,1,0,0,0,0,1,0"})
        expectRefused("warp in.raw out.raw --size 5x4x3 --matrix " + singular, "leaves no volume");
    expectRefused("warp in.raw out.png --size 5x4x3 --picture ./out.png", "two outputs");
    expectRefused("remap in.raw out.raw --size 5x4x3 --twist inf", "--twist");
    expectRefused("warp in.raw out.raw --size 5x4x3 --rotate 5 --axis 0,0,0", "--axis");
    expectRefused("warp in.raw out.raw --size 5x4x3 --scale 1,2", "--scale");
    expectRefused("warp in.raw out.raw --size 5x4x3 --scale 2 --matrix 1,0,0,0,0,1,0,0,0,0,1,0", "--matrix");
    expectRefused("remap in.raw out.raw --size 5x4x3 --field in.raw", "720");
    expectRefused("remap in.raw out.raw --size 5x4x3 --field none.raw", "none.raw");
    expectRefused("remap in.raw out.raw --size 5x4x3 --field in.raw --twist 5", "--field");
    expectRefused("rotate in.raw", "volume:");
    expectRefused("", "volume:");
}
