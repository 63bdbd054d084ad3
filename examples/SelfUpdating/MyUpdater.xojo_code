#tag Class
Protected Class MyUpdater
Inherits UpdateQuestions
	#tag Event
		Function pathToRelaunchForUpdater() as string
		  // What to start. The framework takes your own application when this event is left out; it stands
		  // here to show how such a path is made. Without a path nothing would be started.
		  return mRelaunchPath
		End Function
	#tag EndEvent

	#tag Event
		Function shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean
		  // The parameter is called sendingProfile, but it is the release.
		  //
		  // This may be another thread, and asking people about their documents needs the main thread. So
		  // only set a property here. UpdateTimer sees it a moment later, and the rest happens on the main
		  // thread. When the program is closing already, there is no later moment.
		  RelaunchWaits = not App.Quitting
		  return RelaunchWaits
		End Function
	#tag EndEvent

	#tag Method, Flags = &h0
		Sub Constructor()
		  Super.Constructor

		  // The application's own folder. Its address is "file:///Applications/Example.app/", or on older
		  // systems "file://localhost/Applications/...", with blanks and the like escaped. What comes of it is
		  // UTF-8, and says so only when it is told to.
		  dim bundle as FolderItem = App.ExecutableFile.Parent.Parent.Parent
		  dim address as String = Replace(bundle.URLPath, "file://localhost/", "file:///")
		  mRelaunchPath = DecodeURLComponent(Replace(address, "file://", ""))
		  mRelaunchPath = DefineEncoding(mRelaunchPath, Encodings.UTF8)
		  if Right(mRelaunchPath, 1) = "/" then mRelaunchPath = Left(mRelaunchPath, Len(mRelaunchPath) - 1)
		End Sub
	#tag EndMethod

	#tag Method, Flags = &h0
		Sub RelaunchIfReady()
		  // InvokeUpdate continues what was postponed, once. Without anything postponed it would raise a
		  // NilObjectException. It may not return: the program is told to quit inside it. Somebody has asked for
		  // it, so say once what it waits for.
		  if not RelaunchWaits then return
		  if not App.HasUnsavedDocuments then
		    RelaunchWaits = false
		    InvokeUpdate
		  elseif not mToldToSave then
		    mToldToSave = true
		    MsgBox "The new version starts as soon as your documents are saved."
		  end if
		End Sub
	#tag EndMethod

	#tag Property, Flags = &h0
		RelaunchWaits As Boolean
	#tag EndProperty

	#tag Property, Flags = &h21
		Private mRelaunchPath As String
	#tag EndProperty

	#tag Property, Flags = &h21
		Private mToldToSave As Boolean
	#tag EndProperty

End Class
#tag EndClass
