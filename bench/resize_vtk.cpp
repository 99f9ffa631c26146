// Volume resize by VTK: along the axes, with weights that are tabulated once.
#include <string.h>
#include <vtkImageData.h>
#include <vtkImageInterpolator.h>
#include <vtkImageResize.h>
#include <vtkImageReslice.h>
#include <vtkNew.h>
#include <vtkThreadedImageAlgorithm.h>

#include "resize_peers.h"

template <class T> struct VtkResize<T>::State {
    vtkNew<vtkImageData> image;
    vtkNew<vtkImageReslice> reslice;
    vtkNew<vtkImageResize> resize;
    vtkNew<vtkImageInterpolator> interpolator;
    vtkImageData* result = nullptr;
};

template <class T> VtkResize<T>::VtkResize(const ResizeTask& task, const T* src) : state_(new State) {
    // Or it takes a pool of threads of its own, whatever their number is set to.
    vtkThreadedImageAlgorithm::SetGlobalDefaultEnableSMP(false);
    State& s = *state_;
    s.image->SetDimensions(task.n, task.n, task.n);
    s.image->AllocateScalars(sizeof(T) == 1 ? VTK_UNSIGNED_CHAR : sizeof(T) == 2 ? VTK_UNSIGNED_SHORT : VTK_FLOAT, 1);
    memcpy(s.image->GetScalarPointer(), src, sizeof(T) * size_t(task.n) * task.n * task.n);
    const double step = double(task.n) / task.m;
    s.reslice->SetInputData(s.image);
    s.reslice->SetOutputSpacing(step, step, step);
    s.reslice->SetOutputOrigin(step / 2 - 0.5, step / 2 - 0.5, step / 2 - 0.5);
    s.reslice->SetOutputExtent(0, task.m - 1, 0, task.m - 1, 0, task.m - 1);
    s.reslice->SetInterpolationMode(task.mode == 1   ? VTK_RESLICE_NEAREST
                                    : task.mode == 2 ? VTK_RESLICE_LINEAR
                                                     : VTK_RESLICE_CUBIC);
    s.reslice->BorderOn();
    s.reslice->SetNumberOfThreads(1);
    s.resize->SetInputData(s.image);
    s.resize->SetOutputDimensions(task.m, task.m, task.m);
    s.resize->BorderOn();
    s.resize->SetNumberOfThreads(1);
    if (task.mode == 1) s.interpolator->SetInterpolationModeToNearest();
    if (task.mode == 2) s.interpolator->SetInterpolationModeToLinear();
    if (task.mode > 2) s.interpolator->SetInterpolationModeToCubic();
    s.resize->SetInterpolator(s.interpolator);
}
template <class T> VtkResize<T>::~VtkResize() = default;
template <class T> void VtkResize<T>::reslice() {
    state_->reslice->Modified();
    state_->reslice->Update();
    state_->result = state_->reslice->GetOutput();
}
template <class T> void VtkResize<T>::resize() {
    state_->resize->Modified();
    state_->resize->Update();
    state_->result = state_->resize->GetOutput();
}
template <class T> const T* VtkResize<T>::voxels() const {
    return static_cast<const T*>(state_->result->GetScalarPointer());
}

template class VtkResize<unsigned char>;
template class VtkResize<unsigned short>;
template class VtkResize<float>;
