-- Ardour without its GUI (ardour7-lua), as the long pass drives it: with
-- QVD_ARDOUR_STEP=save it makes a session with one stereo track holding the
-- plugin QVD_ARDOUR_URI, sets port 10 to 6 and saves; with =load it opens
-- that session again and prints what the plugin's port holds.
local dir = os.getenv ("QVD_ARDOUR_SESSION")
local step = os.getenv ("QVD_ARDOUR_STEP")
AudioEngine:set_backend ("None (Dummy)", "", "")
if step == "save" then
  assert (create_session (dir, "qvd", 48000), "cannot create the session")
  local track = Session:new_audio_track (2, 2, nil, 1, "qvd", ARDOUR.PresentationInfo.max_order,
                                         ARDOUR.TrackMode.Normal, true):front ()
  local plugin = ARDOUR.LuaAPI.new_plugin (Session, os.getenv ("QVD_ARDOUR_URI"), ARDOUR.PluginType.LV2, "")
  assert (not plugin:isnil (), "Ardour cannot instantiate the plugin")
  assert (track:add_processor_by_index (plugin, 0, nil, true) == 0, "the track refuses the plugin")
  ARDOUR.LuaAPI.set_processor_param (plugin, 10, 6.0)
  print ("saved:", plugin:display_name (), "latency", plugin:signal_latency ())
  Session:save_state ("", false, false, false, false, false)
else
  assert (load_session (dir, "qvd"), "cannot load the session")
  for route in Session:get_routes ():iter () do
    local plugin = route:nth_plugin (0)
    if not plugin:isnil () then
      print ("loaded:", plugin:display_name (), "port 10 =", ARDOUR.LuaAPI.get_processor_param (plugin, 10))
    end
  end
end
close_session ()
