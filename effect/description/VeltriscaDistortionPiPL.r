/* The plug-in property list of Veltrisca Distortion: what the host reads from the bundle's
   resources before it runs any of the effect's code. Compiled with Rez against the host
   SDK's resource definitions (AE_General.r) when the macOS bundle is built.

   The flags and the version must equal what the effect reports at global setup:
     out_flags  0x2000040 = DEEP_COLOR_AWARE (1 << 25) | USE_OUTPUT_EXTENT (1 << 6)
     out_flags2 0x1409    = SUPPORTS_QUERY_DYNAMIC_FLAGS (1 << 0)
                          | PARAM_GROUP_START_COLLAPSED_FLAG (1 << 3)
                          | SUPPORTS_SMART_RENDER (1 << 10) | FLOAT_COLOR_AWARE (1 << 12)
     version    589825 = 0x90001 = version 1, subversion 2, fix 0, stage develop, build 1
   VeltriscaDistortion.plugin beside this file carries the same values for the Linux host. */

#include "AE_General.r"

resource 'PiPL' (16000) {
	{
		Kind {
			AEEffect
		},
		Name {
			"Veltrisca Distortion"
		},
		Category {
			"Distort"
		},
		CodeMacIntel64 {
			"EntryPointFunc"
		},
		AE_PiPL_Version {
			2,
			0
		},
		AE_Effect_Spec_Version {
			13,	/* PF_PLUG_IN_VERSION */
			28	/* PF_PLUG_IN_SUBVERS */
		},
		AE_Effect_Version {
			589825
		},
		AE_Effect_Info_Flags {
			0
		},
		AE_Effect_Global_OutFlags {
			0x2000040
		},
		AE_Effect_Global_OutFlags_2 {
			0x1409
		},
		AE_Effect_Match_Name {
			"VLTR Veltrisca Distortion"
		},
		AE_Reserved_Info {
			0
		}
	}
};
