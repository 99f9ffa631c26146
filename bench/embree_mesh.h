// A mesh as Embree takes it.
#pragma once
#include <embree3/rtcore.h>
#include <stdint.h>
#include <string.h>

#include "meshes.h"

// Not committed yet.
inline RTCGeometry embreeMesh(RTCDevice device, const bench::Mesh& mesh) {
    RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    memcpy(
        rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 12, size_t(mesh.vertexCount())),
        mesh.vertices.data(), mesh.vertices.size() * 4);
    uint32_t* index = static_cast<uint32_t*>(rtcSetNewGeometryBuffer(
        geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, size_t(mesh.triangleCount())));
    for (int t = 0; t < mesh.triangleCount(); ++t)
        for (int v = 0; v < 3; ++v) index[3 * t + v] = uint32_t(mesh.triangles[4 * size_t(t) + size_t(v)]);
    return geometry;
}
