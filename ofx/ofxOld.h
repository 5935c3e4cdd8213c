#ifndef _ofxOld_h_
#define _ofxOld_h_

/* Deprecated names kept so older plug-in code still builds. Only macros,
 * hence no extern "C" block. No other header includes this one. */

/* Deprecated: whether the instance is being rendered for analysis. */
#define kOfxImageEffectPropInAnalysis "OfxImageEffectPropInAnalysis"

#endif /* _ofxOld_h_ */
