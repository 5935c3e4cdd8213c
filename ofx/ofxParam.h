#ifndef _ofxParam_h_
#define _ofxParam_h_

/* Parameter suite: definition, values, keys and edit blocks. */

#include "ofxCore.h"
#include "ofxProperty.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kOfxParameterSuite "OfxParameterSuite"

typedef struct OfxParamStruct *OfxParamHandle;
typedef struct OfxParamSetStruct *OfxParamSetHandle;

/* Object types (values of kOfxPropType). */
#define kOfxTypeParameter "OfxTypeParameter"
#define kOfxTypeParameterInstance "OfxTypeParameterInstance"

/* Parameter types. */
#define kOfxParamTypeInteger "OfxParamTypeInteger"
#define kOfxParamTypeDouble "OfxParamTypeDouble"
#define kOfxParamTypeBoolean "OfxParamTypeBoolean"
#define kOfxParamTypeChoice "OfxParamTypeChoice"
#define kOfxParamTypeRGBA "OfxParamTypeRGBA"
#define kOfxParamTypeRGB "OfxParamTypeRGB"
#define kOfxParamTypeDouble2D "OfxParamTypeDouble2D"
#define kOfxParamTypeInteger2D "OfxParamTypeInteger2D"
#define kOfxParamTypeDouble3D "OfxParamTypeDouble3D"
#define kOfxParamTypeInteger3D "OfxParamTypeInteger3D"
#define kOfxParamTypeString "OfxParamTypeString"
#define kOfxParamTypeCustom "OfxParamTypeCustom"
#define kOfxParamTypeGroup "OfxParamTypeGroup"
#define kOfxParamTypePage "OfxParamTypePage"
#define kOfxParamTypePushButton "OfxParamTypePushButton"

/* Parameter properties. */
#define kOfxParamPropType "OfxParamPropType"
#define kOfxParamPropDefault "OfxParamPropDefault"
#define kOfxParamPropAnimates "OfxParamPropAnimates"
#define kOfxParamPropIsAnimating "OfxParamPropIsAnimating"
#define kOfxParamPropIsAutoKeying "OfxParamPropIsAutoKeying"
/* Misspelt in the standard, name and value alike; kept for compatibility. */
#define kOfxParamPropPersistant "OfxParamPropPersistant"
#define kOfxParamPropEvaluateOnChange "OfxParamPropEvaluateOnChange"
#define kOfxParamPropPluginMayWrite "OfxParamPropPluginMayWrite"
#define kOfxParamPropCanUndo "OfxParamPropCanUndo"
#define kOfxParamPropHint "OfxParamPropHint"
#define kOfxParamPropScriptName "OfxParamPropScriptName"
#define kOfxParamPropParent "OfxParamPropParent"
#define kOfxParamPropEnabled "OfxParamPropEnabled"
#define kOfxParamPropSecret "OfxParamPropSecret"
#define kOfxParamPropDataPtr "OfxParamPropDataPtr"
#define kOfxParamPropChoiceOption "OfxParamPropChoiceOption"
#define kOfxParamPropMin "OfxParamPropMin"
#define kOfxParamPropMax "OfxParamPropMax"
#define kOfxParamPropDisplayMin "OfxParamPropDisplayMin"
#define kOfxParamPropDisplayMax "OfxParamPropDisplayMax"
#define kOfxParamPropIncrement "OfxParamPropIncrement"
#define kOfxParamPropDigits "OfxParamPropDigits"
#define kOfxParamPropDimensionLabel "OfxParamPropDimensionLabel"
#define kOfxParamPropPageChild "OfxParamPropPageChild"
#define kOfxParamPropGroupOpen "OfxParamPropGroupOpen"
#define kOfxParamPropInteractV1 "OfxParamPropInteractV1"
#define kOfxParamPropStringMode "OfxParamPropStringMode"
#define kOfxParamPropStringFilePathExists "OfxParamPropStringFilePathExists"
#define kOfxParamPropDoubleType "OfxParamPropDoubleType"

/* Values of kOfxParamPropDoubleType. */
#define kOfxParamDoubleTypePlain "OfxParamDoubleTypePlain"
#define kOfxParamDoubleTypeScale "OfxParamDoubleTypeScale"
#define kOfxParamDoubleTypeAngle "OfxParamDoubleTypeAngle"
#define kOfxParamDoubleTypeTime "OfxParamDoubleTypeTime"
#define kOfxParamDoubleTypeAbsoluteTime "OfxParamDoubleTypeAbsoluteTime"

/* Values of kOfxParamPropStringMode. */
#define kOfxParamStringIsSingleLine "OfxParamStringIsSingleLine"
#define kOfxParamStringIsMultiLine "OfxParamStringIsMultiLine"
#define kOfxParamStringIsFilePath "OfxParamStringIsFilePath"
#define kOfxParamStringIsDirectoryPath "OfxParamStringIsDirectoryPath"
#define kOfxParamStringIsLabel "OfxParamStringIsLabel"

typedef struct OfxParameterSuiteV1 {
  OfxStatus (*paramDefine)(OfxParamSetHandle paramSet, const char *paramType, const char *name,
                           OfxPropertySetHandle *propertySet);
  OfxStatus (*paramGetHandle)(OfxParamSetHandle paramSet, const char *name, OfxParamHandle *param,
                              OfxPropertySetHandle *propertySet);
  OfxStatus (*paramSetGetPropertySet)(OfxParamSetHandle paramSet, OfxPropertySetHandle *propHandle);
  OfxStatus (*paramGetPropertySet)(OfxParamHandle param, OfxPropertySetHandle *propHandle);
  /* The value accessors are variadic (one pointer or value per dimension);
   * a prototype without the "..." is a different call ABI on x86-64. */
  OfxStatus (*paramGetValue)(OfxParamHandle paramHandle, ...);
  OfxStatus (*paramGetValueAtTime)(OfxParamHandle paramHandle, OfxTime time, ...);
  OfxStatus (*paramGetDerivative)(OfxParamHandle paramHandle, OfxTime time, ...);
  OfxStatus (*paramGetIntegral)(OfxParamHandle paramHandle, OfxTime time1, OfxTime time2, ...);
  OfxStatus (*paramSetValue)(OfxParamHandle paramHandle, ...);
  OfxStatus (*paramSetValueAtTime)(OfxParamHandle paramHandle, OfxTime time, ...);
  OfxStatus (*paramGetNumKeys)(OfxParamHandle paramHandle, unsigned int *numberOfKeys);
  OfxStatus (*paramGetKeyTime)(OfxParamHandle paramHandle, unsigned int nthKey, OfxTime *time);
  OfxStatus (*paramGetKeyIndex)(OfxParamHandle paramHandle, OfxTime time, int direction, int *index);
  OfxStatus (*paramDeleteKey)(OfxParamHandle paramHandle, OfxTime time);
  OfxStatus (*paramDeleteAllKeys)(OfxParamHandle paramHandle);
  OfxStatus (*paramCopy)(OfxParamHandle paramTo, OfxParamHandle paramFrom, OfxTime dstOffset,
                         const OfxRangeD *frameRange);
  OfxStatus (*paramEditBegin)(OfxParamSetHandle paramSet, const char *name);
  OfxStatus (*paramEditEnd)(OfxParamSetHandle paramSet);
} OfxParameterSuiteV1;

#ifdef __cplusplus
}
#endif

#endif /* _ofxParam_h_ */
