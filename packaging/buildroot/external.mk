include $(sort $(wildcard $(BR2_EXTERNAL_FOCUS_ASSIST_PATH)/package/*/*.mk))
