// The libraries of filter_peers.h. What they convert and copy beforehand is not part of their time.
#include "filter_peers.h"

#include <cmath>
#include <vector>

#if defined(ZENR_BENCH_CIMG)
#define cimg_display 0
#define cimg_use_openmp 0
#include <CImg.h>
#endif
#if defined(ZENR_BENCH_EIGEN)
#include <unsupported/Eigen/CXX11/Tensor>
#endif
#if defined(ZENR_BENCH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

#if defined(ZENR_BENCH_EIGEN)
Eigen::Tensor<float, 3, Eigen::RowMajor> eigenSource, eigenKernel, eigenResult;

bool prepareEigen(const int16_t* src, int n, const int32_t* weights, const int32_t*, int k, int32_t) {
    eigenSource.resize(n, n, n);
    for (long i = 0; i < long(n) * n * n; ++i) eigenSource.data()[i] = src[i];
    eigenKernel.resize(k, k, k);
    for (int i = 0; i < k * k * k; ++i) eigenKernel.data()[i] = float(weights[i]);
    eigenResult.resize(n - k + 1, n - k + 1, n - k + 1);
    return true;
}
void runEigen() {
    const Eigen::array<ptrdiff_t, 3> axes = {0, 1, 2};
    eigenResult = eigenSource.convolve(eigenKernel, axes);
}
#endif

#if defined(ZENR_BENCH_CIMG)
cimg_library::CImg<float> cimgSource, cimgKernel;

bool prepareCimg(const int16_t* src, int n, const int32_t* weights, const int32_t*, int k, int32_t) {
    cimgSource.assign(n, n, n, 1);
    for (long i = 0; i < long(n) * n * n; ++i) cimgSource[i] = src[i];
    cimgKernel.assign(k, k, k, 1);
    for (int i = 0; i < k * k * k; ++i) cimgKernel[i] = float(weights[i]);
    return true;
}
void runCimg() {
    cimgSource.get_convolve(cimgKernel);
}
#endif

#if defined(ZENR_BENCH_OPENCV)
// Planes by the separable filter, then the third axis by the same filter over a picture whose rows are whole planes.
// By floats in between, or by rounded 16-bit voxels, which are not exact but less to move.
cv::Mat cvSource, cvPlanes, cvFactor, cvResult, cvUnit;
int cvSize;

bool prepareOpencv(const int16_t* src, int n, const int32_t* axis, int k, int32_t divisor, int between) {
    if (!axis) return false;
    cv::setNumThreads(1);
    cvSize = n;
    cvSource.create(n, n * n, CV_16S);
    for (long i = 0; i < long(n) * n * n; ++i) cvSource.ptr<int16_t>()[i] = src[i];
    cvPlanes.create(n, n * n, between);
    cvResult.create(n, n * n, CV_16S);
    cvFactor.create(k, 1, CV_32F);
    for (int i = 0; i < k; ++i) cvFactor.at<float>(i) = float(axis[i] / std::cbrt(double(divisor)));
    cvUnit = cv::Mat::ones(1, 1, CV_32F);
    return true;
}
bool prepareFloats(const int16_t* src, int n, const int32_t*, const int32_t* axis, int k, int32_t divisor) {
    return prepareOpencv(src, n, axis, k, divisor, CV_32F);
}
bool prepareShorts(const int16_t* src, int n, const int32_t*, const int32_t* axis, int k, int32_t divisor) {
    return prepareOpencv(src, n, axis, k, divisor, CV_16S);
}
void runOpencv() {
    for (int z = 0; z < cvSize; ++z) {
        const cv::Mat from(cvSize, cvSize, CV_16S, cvSource.ptr(z));
        cv::Mat to(cvSize, cvSize, cvPlanes.type(), cvPlanes.ptr(z));
        cv::sepFilter2D(from, to, to.depth(), cvFactor, cvFactor);
    }
    if (cvPlanes.type() == CV_16S) {
        cv::sepFilter2D(cvPlanes, cvResult, CV_16S, cvUnit, cvFactor);
        return;
    }
    cv::Mat sums;
    cv::sepFilter2D(cvPlanes, sums, CV_32F, cvUnit, cvFactor);
    sums.convertTo(cvResult, CV_16S);
}
#endif

} // namespace

const FilterPeer kFilterPeers[] = {
#if defined(ZENR_BENCH_EIGEN)
    {"Eigen", prepareEigen, runEigen},
#endif
#if defined(ZENR_BENCH_CIMG)
    {"CImg", prepareCimg, runCimg},
#endif
#if defined(ZENR_BENCH_OPENCV)
    {"OpenCV 32f", prepareFloats, runOpencv},
    {"OpenCV 16s", prepareShorts, runOpencv},
#endif
    {nullptr, nullptr, nullptr},
};
