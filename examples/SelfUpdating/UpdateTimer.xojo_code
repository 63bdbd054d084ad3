#tag Class
Protected Class UpdateTimer
Inherits Timer
	#tag Event
		Sub Action()
		  // A timer runs on the main thread. Here you may ask people to save, open windows, and so on.
		  if App.Updater = nil then return

		  // The program goes on, so nobody let it quit.
		  App.Quitting = false

		  App.Updater.SayThatTheFeedFailed
		  App.Updater.RelaunchIfReady
		End Sub
	#tag EndEvent

End Class
#tag EndClass
