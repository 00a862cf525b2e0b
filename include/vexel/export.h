#pragma once

/// The one place for what compilers spell differently.
///
/// A client includes the headers as they are and links the import library. A program that links the
/// layers' objects instead of the DLL (the tests do) defines VEXEL_STATIC; the library itself is built
/// with VEXEL_BUILDING.

// The application's framework has to come before the platform's headers, of which this one knows nothing yet.
#if defined(VEXEL_FRAMEWORK_MFC) && defined(__cplusplus)
#include <afx.h>
#endif

#if defined(VEXEL_STATIC)
#define VEXEL_API
#elif defined(VEXEL_BUILDING)
#define VEXEL_API __declspec(dllexport)
#else
#define VEXEL_API __declspec(dllimport)
#endif

/// Whether an exported instance of a class template is used by clients out of the DLL. Where the compiler
/// exports only what it is told to of an instance, clients make their own of the header's code.
#if defined(VEXEL_BUILDING) || defined(_MSC_VER)
#define VEXEL_SHARES_INSTANCES 1
#else
#define VEXEL_SHARES_INSTANCES 0
#endif

/// Whether the compiler is one of those: it has to be told of each member of the instance.
#if defined(__GNUC__) && !defined(__clang__)
#define VEXEL_EXPORTS_BY_MEMBER 1
#else
#define VEXEL_EXPORTS_BY_MEMBER 0
#endif

#if defined(VEXEL_FRAMEWORK_STATIC)
#define VEXEL_FRAMEWORK_API
#elif defined(VEXEL_FRAMEWORK_BUILDING)
#define VEXEL_FRAMEWORK_API __declspec(dllexport)
#else
#define VEXEL_FRAMEWORK_API __declspec(dllimport)
#endif

#if defined(VEXEL_DIAGNOSTICS_BUILDING)
#define VEXEL_DIAGNOSTICS_API __declspec(dllexport)
#else
#define VEXEL_DIAGNOSTICS_API __declspec(dllimport)
#endif

/// Lets the compiler check the arguments of a narrow printf-style function; arguments counted from 1,
/// `this` included.
#if defined(__GNUC__)
#define VEXEL_PRINTF_FORMAT(text, first) __attribute__((format(gnu_printf, text, first)))
#else
#define VEXEL_PRINTF_FORMAT(text, first)
#endif
