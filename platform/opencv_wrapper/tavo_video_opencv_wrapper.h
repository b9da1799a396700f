// The image-operations wrapper: OpenCV matrices and operations behind plain C functions on
// opaque handles, so that the video library can load it by name at run time instead of
// linking OpenCV. Every handle is made and freed only by this library's create and destroy
// functions. No function throws: an OpenCV failure gives an empty matrix, a null handle, 0
// or false, and leaves output matrices as they were.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CMat CMat;
typedef struct CSize CSize;
typedef struct CScalar CScalar;
typedef struct CPoint2f CPoint2f;
typedef struct CRect CRect;

#define CV_WRAPPER_API __attribute__((visibility("default")))

CV_WRAPPER_API CMat* CMatCreateEmpty(void);
CV_WRAPPER_API void CMatDestroy(CMat* mat);
// Reads an image file with OpenCV's read flags; an unreadable file gives an empty matrix.
// Colour images come as B, G, R bytes per pixel.
CV_WRAPPER_API CMat* CImread(char const* path, int flags);
CV_WRAPPER_API int C_IMREAD_COLOR(void);
// True for a null or empty matrix.
CV_WRAPPER_API bool CMatEmpty(CMat* mat);
CV_WRAPPER_API CSize* CSizeCreate(int width, int height);
CV_WRAPPER_API void CSizeDestroy(CSize* size);
// Scales src into dst (which may be src) to size, bilinear.
CV_WRAPPER_API void CResize(CMat* src, CMat* dst, CSize* size);
CV_WRAPPER_API int CMatRows(CMat* mat);
CV_WRAPPER_API int CMatCols(CMat* mat);
CV_WRAPPER_API unsigned char* CMatData(CMat* mat);
CV_WRAPPER_API CMat* CMatCreate(int rows, int cols, int type);
// A matrix over the caller's memory (not copied, not freed), rows packed or `step` apart.
CV_WRAPPER_API CMat* CMatCreateFromData(int rows, int cols, int type, void* data);
CV_WRAPPER_API CMat* CMatCreateFromDataStep(int rows, int cols, int type, void* data, int step);
CV_WRAPPER_API CMat* CMatCreateFromScalar(int rows, int cols, int type, CScalar* value);
CV_WRAPPER_API CScalar* CScalarCreate(double v0, double v1, double v2, double v3);
CV_WRAPPER_API void CScalarDestroy(CScalar* scalar);
CV_WRAPPER_API CPoint2f* CPoint2fCreate(double x, double y);
CV_WRAPPER_API void CPoint2fDestroy(CPoint2f* point);
CV_WRAPPER_API CRect* CRectCreate(int x, int y, int width, int height);
CV_WRAPPER_API void CRectDestroy(CRect* rect);
// Bytes from one row to the next.
CV_WRAPPER_API unsigned int CMatStep(CMat* mat);
CV_WRAPPER_API int CMatChannels(CMat* mat);
CV_WRAPPER_API void CMatConvertTo(CMat* src, CMat* dst, int type, double alpha, double beta);
// New matrices: element-wise power, and the matrix times a number.
CV_WRAPPER_API CMat* CMatPow(CMat* src, double power);
CV_WRAPPER_API CMat* CMatMultiplyScalar(CMat* src, double factor);
CV_WRAPPER_API void CMatCopy(CMat* src, CMat* dst);
// Copies min(size, bytes of the matrix) bytes from data into a continuous matrix.
CV_WRAPPER_API void CMatCopyData(CMat* mat, unsigned char* data, int size);
CV_WRAPPER_API CMat* CGetRotationMatrix2d(CPoint2f* center, double angle, double scale);
// src moved by the 2x3 matrix, same size as src; flags are OpenCV's interpolation flags.
CV_WRAPPER_API CMat* CWarpAffine(CMat* src, CMat* transform, int flags);
// 1 when written, else 0.
CV_WRAPPER_API int CImwrite(char const* path, CMat* mat);
// The part of mat inside rect (sharing its pixels), cut to the matrix; empty when outside.
CV_WRAPPER_API CMat* CMatGetRoi(CMat* mat, CRect* rect);
CV_WRAPPER_API void CGaussianBlur(CMat* src, CMat* dst, CSize* kernel, double sigma);
CV_WRAPPER_API void CFlip(CMat* src, CMat* dst, int code);
CV_WRAPPER_API int C_CV_8UC1(void);
CV_WRAPPER_API int C_CV_8UC3(void);
CV_WRAPPER_API int C_CV_8UC4(void);
CV_WRAPPER_API int C_CV_32F(void);
CV_WRAPPER_API int C_CV_32FC1(void);
CV_WRAPPER_API int C_INTER_LINEAR(void);

#ifdef __cplusplus
}
#endif
