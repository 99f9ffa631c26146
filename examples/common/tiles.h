// Pictures in tiles that threads share out among themselves.
#pragma once
#include <algorithm>
#include <cstddef>
#include <omp.h>
#include <vector>

#include <zenr.h>

#include "camera.h"
#include "progress.h"

struct WorkOptions {
    int threads = 0; // 0: as many as the OpenMP runtime would use
    int tile = 32;   // pixels on a side
    bool quiet = false;
};

struct Tile {
    int column, row;   // among the tiles
    int left, top;     // pixels
    int width, height; // pixels; less than a whole tile's at the right and lower edges
    ZenrSize rays;
};

class Tiles {
public:
    Tiles(const CameraOptions& camera, int tile) : camera_(camera), tile_(tile) {}

    int columns() const { return (camera_.width + tile_ - 1) / tile_; }
    int count() const { return columns() * ((camera_.height + tile_ - 1) / tile_); }
    int side() const { return tile_ * camera_.samples; } // of a whole tile, in rays
    size_t mostRays() const { return static_cast<size_t>(side()) * side(); }
    int threads(int asked) const { return std::min(asked > 0 ? asked : omp_get_max_threads(), count()); }

    Tile operator[](int index) const {
        const int column = index % columns(), row = index / columns();
        const int left = column * tile_, top = row * tile_;
        const int width = std::min(tile_, camera_.width - left), height = std::min(tile_, camera_.height - top);
        return {column, row, left, top, width, height, {width * camera_.samples, height * camera_.samples}};
    }

    // Calls work(thread, tile) for each tile; it returns how many rays it traced.
    template <class Work> void forEach(int threads, bool quiet, const Work& work) const {
        Progress progress(count(), quiet);
#pragma omp parallel for schedule(dynamic) num_threads(threads)
        for (int index = 0; index < count(); ++index) progress.tileDone(work(omp_get_thread_num(), (*this)[index]));
        progress.finish();
    }

    // The mean of value(ray) over the rays of pixel (x, y) of a tile, added row by row whatever the tile.
    template <class Value> double mean(const Tile& tile, int x, int y, const Value& value) const {
        const int samples = camera_.samples;
        double sum = 0;
        for (int j = 0; j < samples; ++j)
            for (int i = 0; i < samples; ++i) sum += value((y * samples + j) * tile.rays.width + x * samples + i);
        return sum / (samples * samples);
    }

private:
    const CameraOptions& camera_;
    const int tile_;
};
