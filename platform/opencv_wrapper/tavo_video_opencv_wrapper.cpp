#include "platform/opencv_wrapper/tavo_video_opencv_wrapper.h"

#include <algorithm>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

struct CMat {
  cv::Mat mat;
};
struct CSize {
  cv::Size size;
};
struct CScalar {
  cv::Scalar scalar;
};
struct CPoint2f {
  cv::Point2f point;
};
struct CRect {
  cv::Rect rect;
};

namespace {

// Runs an OpenCV operation; nothing it throws leaves this library.
template <class F, class R>
R Guard(F&& operation, R failed) noexcept {
  try {
    return operation();
  } catch (...) {
    return failed;
  }
}

template <class F>
void Guard(F&& operation) noexcept {
  try {
    operation();
  } catch (...) {
  }
}

CMat* NewMat(cv::Mat mat) { return new (std::nothrow) CMat{std::move(mat)}; }

}  // namespace

CMat* CMatCreateEmpty(void) { return NewMat(cv::Mat()); }

void CMatDestroy(CMat* mat) { delete mat; }

CMat* CImread(char const* path, int flags) {
  CMat* image = nullptr;
  if (path != nullptr) {
    image = Guard([&] { return NewMat(cv::imread(path, flags)); }, static_cast<CMat*>(nullptr));
  }
  return image != nullptr ? image : NewMat(cv::Mat());  // unreadable: an empty matrix
}

int C_IMREAD_COLOR(void) { return cv::IMREAD_COLOR; }

bool CMatEmpty(CMat* mat) { return mat == nullptr || mat->mat.empty(); }

CSize* CSizeCreate(int width, int height) { return new (std::nothrow) CSize{{width, height}}; }

void CSizeDestroy(CSize* size) { delete size; }

void CResize(CMat* src, CMat* dst, CSize* size) {
  if (src == nullptr || dst == nullptr || size == nullptr) {
    return;
  }
  Guard([&] {
    cv::Mat scaled;
    cv::resize(src->mat, scaled, size->size, 0, 0, cv::INTER_LINEAR);
    dst->mat = std::move(scaled);
  });
}

int CMatRows(CMat* mat) { return mat == nullptr ? 0 : mat->mat.rows; }

int CMatCols(CMat* mat) { return mat == nullptr ? 0 : mat->mat.cols; }

unsigned char* CMatData(CMat* mat) { return mat == nullptr ? nullptr : mat->mat.data; }

CMat* CMatCreate(int rows, int cols, int type) {
  return Guard([&] { return NewMat(cv::Mat(rows, cols, type)); }, static_cast<CMat*>(nullptr));
}

CMat* CMatCreateFromData(int rows, int cols, int type, void* data) {
  if (data == nullptr) {
    return nullptr;
  }
  return Guard([&] { return NewMat(cv::Mat(rows, cols, type, data)); },
               static_cast<CMat*>(nullptr));
}

CMat* CMatCreateFromDataStep(int rows, int cols, int type, void* data, int step) {
  if (data == nullptr || step < 0) {
    return nullptr;
  }
  return Guard([&] { return NewMat(cv::Mat(rows, cols, type, data, static_cast<size_t>(step))); },
               static_cast<CMat*>(nullptr));
}

CMat* CMatCreateFromScalar(int rows, int cols, int type, CScalar* value) {
  if (value == nullptr) {
    return nullptr;
  }
  return Guard([&] { return NewMat(cv::Mat(rows, cols, type, value->scalar)); },
               static_cast<CMat*>(nullptr));
}

CScalar* CScalarCreate(double v0, double v1, double v2, double v3) {
  return new (std::nothrow) CScalar{cv::Scalar(v0, v1, v2, v3)};
}

void CScalarDestroy(CScalar* scalar) { delete scalar; }

CPoint2f* CPoint2fCreate(double x, double y) {
  return new (std::nothrow) CPoint2f{cv::Point2f(static_cast<float>(x), static_cast<float>(y))};
}

void CPoint2fDestroy(CPoint2f* point) { delete point; }

CRect* CRectCreate(int x, int y, int width, int height) {
  return new (std::nothrow) CRect{cv::Rect(x, y, width, height)};
}

void CRectDestroy(CRect* rect) { delete rect; }

unsigned int CMatStep(CMat* mat) {
  return mat == nullptr ? 0U : static_cast<unsigned int>(mat->mat.step[0]);
}

int CMatChannels(CMat* mat) { return mat == nullptr ? 0 : mat->mat.channels(); }

void CMatConvertTo(CMat* src, CMat* dst, int type, double alpha, double beta) {
  if (src == nullptr || dst == nullptr) {
    return;
  }
  Guard([&] {
    cv::Mat converted;
    src->mat.convertTo(converted, type, alpha, beta);
    dst->mat = std::move(converted);
  });
}

CMat* CMatPow(CMat* src, double power) {
  if (src == nullptr) {
    return nullptr;
  }
  return Guard(
      [&] {
        cv::Mat result;
        cv::pow(src->mat, power, result);
        return NewMat(std::move(result));
      },
      static_cast<CMat*>(nullptr));
}

CMat* CMatMultiplyScalar(CMat* src, double factor) {
  if (src == nullptr) {
    return nullptr;
  }
  return Guard([&] { return NewMat(cv::Mat(src->mat * factor)); }, static_cast<CMat*>(nullptr));
}

void CMatCopy(CMat* src, CMat* dst) {
  if (src == nullptr || dst == nullptr || src == dst) {
    return;
  }
  Guard([&] { src->mat.copyTo(dst->mat); });
}

void CMatCopyData(CMat* mat, unsigned char* data, int size) {
  if (mat == nullptr || data == nullptr || size <= 0 || !mat->mat.isContinuous()) {
    return;
  }
  const size_t bytes = mat->mat.total() * mat->mat.elemSize();
  std::memcpy(mat->mat.data, data, std::min(bytes, static_cast<size_t>(size)));
}

CMat* CGetRotationMatrix2d(CPoint2f* center, double angle, double scale) {
  if (center == nullptr) {
    return nullptr;
  }
  return Guard([&] { return NewMat(cv::getRotationMatrix2D(center->point, angle, scale)); },
               static_cast<CMat*>(nullptr));
}

CMat* CWarpAffine(CMat* src, CMat* transform, int flags) {
  if (src == nullptr || transform == nullptr) {
    return nullptr;
  }
  return Guard(
      [&] {
        cv::Mat moved;
        cv::warpAffine(src->mat, moved, transform->mat, src->mat.size(), flags);
        return NewMat(std::move(moved));
      },
      static_cast<CMat*>(nullptr));
}

int CImwrite(char const* path, CMat* mat) {
  if (path == nullptr || mat == nullptr || mat->mat.empty()) {
    return 0;
  }
  return Guard([&] { return cv::imwrite(path, mat->mat) ? 1 : 0; }, 0);
}

CMat* CMatGetRoi(CMat* mat, CRect* rect) {
  if (mat == nullptr || rect == nullptr) {
    return nullptr;
  }
  const cv::Rect inside = rect->rect & cv::Rect(0, 0, mat->mat.cols, mat->mat.rows);
  if (inside.empty()) {
    return NewMat(cv::Mat());
  }
  return Guard([&] { return NewMat(mat->mat(inside)); }, static_cast<CMat*>(nullptr));
}

void CGaussianBlur(CMat* src, CMat* dst, CSize* kernel, double sigma) {
  if (src == nullptr || dst == nullptr || kernel == nullptr) {
    return;
  }
  Guard([&] {
    cv::Mat blurred;
    cv::GaussianBlur(src->mat, blurred, kernel->size, sigma);
    dst->mat = std::move(blurred);
  });
}

void CFlip(CMat* src, CMat* dst, int code) {
  if (src == nullptr || dst == nullptr) {
    return;
  }
  Guard([&] {
    cv::Mat flipped;
    cv::flip(src->mat, flipped, code);
    dst->mat = std::move(flipped);
  });
}

int C_CV_8UC1(void) { return CV_8UC1; }
int C_CV_8UC3(void) { return CV_8UC3; }
int C_CV_8UC4(void) { return CV_8UC4; }
int C_CV_32F(void) { return CV_32F; }
int C_CV_32FC1(void) { return CV_32FC1; }
int C_INTER_LINEAR(void) { return cv::INTER_LINEAR; }
