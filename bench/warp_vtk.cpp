// Affine warp by VTK.
#include <string.h>
#include <vtkImageData.h>
#include <vtkImageReslice.h>
#include <vtkMatrix4x4.h>
#include <vtkNew.h>
#include <vtkThreadedImageAlgorithm.h>

#include "warp_peers.h"

template <class T> struct VtkWarp<T>::State {
    vtkNew<vtkImageData> image;
    vtkNew<vtkImageReslice> reslice;
};

template <class T> VtkWarp<T>::VtkWarp(const WarpPeerTask& task, const T* src) : state_(new State) {
    // Or it takes a pool of threads of its own, whatever their number is set to.
    vtkThreadedImageAlgorithm::SetGlobalDefaultEnableSMP(false);
    State& s = *state_;
    const int n = task.n;
    s.image->SetDimensions(n, n, n);
    s.image->AllocateScalars(sizeof(T) == 1 ? VTK_UNSIGNED_CHAR : sizeof(T) == 2 ? VTK_UNSIGNED_SHORT : VTK_FLOAT, 1);
    memcpy(s.image->GetScalarPointer(), src, sizeof(T) * size_t(n) * n * n);
    vtkNew<vtkMatrix4x4> matrix;
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 4; ++k) matrix->SetElement(r, k, task.inverse[4 * r + k]);
    s.reslice->SetInputData(s.image);
    s.reslice->SetResliceAxes(matrix);
    s.reslice->SetOutputSpacing(1, 1, 1);
    s.reslice->SetOutputOrigin(0, 0, 0);
    s.reslice->SetOutputExtent(0, n - 1, 0, n - 1, 0, n - 1);
    s.reslice->SetInterpolationMode(task.mode == 1   ? VTK_RESLICE_NEAREST
                                    : task.mode == 2 ? VTK_RESLICE_LINEAR
                                                     : VTK_RESLICE_CUBIC);
    s.reslice->SetNumberOfThreads(1);
}
template <class T> VtkWarp<T>::~VtkWarp() = default;
template <class T> void VtkWarp<T>::run() {
    state_->reslice->Modified();
    state_->reslice->Update();
}
template <class T> const T* VtkWarp<T>::voxels() const {
    return static_cast<const T*>(state_->reslice->GetOutput()->GetScalarPointer());
}

template class VtkWarp<unsigned char>;
template class VtkWarp<unsigned short>;
template class VtkWarp<float>;
