#tag Class
Protected Class UpdateQuestions
Inherits UpdateReports
	#tag Event
		Function bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ
		  // This and the other events in this class may come on another thread than the main one. So they
		  // answer at once, from what is ready, and touch no windows and no files.
		  //
		  // Here: the newest release by date, and betas only for those who want them. The releases come
		  // sorted, and there may be none.
		  dim releases() as SUAppcastItemKVZ = appcast.items
		  for each release as SUAppcastItemKVZ in releases
		    dim beta as Boolean = InStr(release.title, "beta") > 0
		    if WantsBetas or not beta then return release
		  next
		  return nil
		End Function
	#tag EndEvent

	#tag Event
		Function feedParametersForUpdater(sendingProfile as boolean) as dictionary()
		  // Made in the Constructor, on the main thread, and never changed since.
		  return mFeedParameters
		End Function
	#tag EndEvent

	#tag Event
		Function updaterShouldPromptForPermissionToCheckForUpdates() as boolean
		  // This program has a checkbox for it (see App.ChecksAutomatically), so nobody need be asked.
		  return false
		End Function
	#tag EndEvent

	#tag Event
		Function versionComparatorForUpdater() as SUVersionComparisonKVZ
		  // Always the one in the property. A new one, made here, would be gone before the framework could
		  // ask it.
		  return mComparison
		End Function
	#tag EndEvent

	#tag Method, Flags = &h0
		Sub Constructor()
		  // This hides the Constructor of SUUpdaterKVZ, which finds the framework's updater. So call it.
		  Super.Constructor

		  mComparison = new MyComparison

		  // The framework would leave the & as it is, and the server would take it for the end of the value.
		  dim edition as new Dictionary
		  edition.Value("key") = "edition"
		  edition.Value("value") = EncodeURLComponent("Pro & Team")
		  edition.Value("displayKey") = "Edition"
		  edition.Value("displayValue") = "Pro & Team"
		  mFeedParameters.Append edition
		End Sub
	#tag EndMethod

	#tag Property, Flags = &h0
		WantsBetas As Boolean
	#tag EndProperty

	#tag Property, Flags = &h21
		Private mComparison As MyComparison
	#tag EndProperty

	#tag Property, Flags = &h21
		Private mFeedParameters() As Dictionary
	#tag EndProperty

End Class
#tag EndClass
