#include "scene.h"

#include "osd/osd_session.h"

Scene::Scene()
{
    world::reset();
}

void Scene::check(const std::function<void()> &product, const std::function<void()> &expected)
{
    world::clear_record();
    const world::Streams streams = world::with_streams(product);
    model.begin();
    expected();
    model.end(streams);
}

void Scene::check_start()
{
    check([this] { ::display_start(&display); }, [this] { model.display_start(); });
}

void Scene::check_pass()
{
    check([this] { ::display_pass(&state, &display); }, [this] { model.display_pass(); });
}

void Scene::forget_posts()
{
    display = {};
    for (PostState &post : display.posts) {
        for (uint32_t j = 0; j < OSD_PLANE_COUNT; j++)
            post.planes[j].number = j;
    }
    post_notify_state.started_mask = 0;
    post_notify_state.stopped_mask = 0;
    for (size_t p = 0; p < POST_COUNT; p++) {
        post_notify_state.post_res_id[p] = 0;
        model.posts[p] = model::Post();
        model.post_res_id[p] = 0;
        model.started[p] = false;
        model.stopped[p] = false;
    }
}

void Scene::report(uint32_t post_res_id, uint32_t post, uint32_t running)
{
    osd_post_notify({0xDEADBEEF, post_res_id, post, running});
    model.report(post_res_id, post, running);
}

void Scene::set_focus(uint32_t current, uint32_t peak)
{
    state.current = current;
    state.peak = peak;
    model.current = current;
    model.peak = peak;
}

void Scene::report_beside(uint32_t post_res_id, uint32_t post, uint32_t running)
{
    const PostNotifyInfo info = {0xDEADBEEF, post_res_id, post, running};
    osd_post_notify(info);
    world::note_report(info);
}

void Scene::set_focus_beside(uint32_t current, uint32_t peak)
{
    state.current = current;
    state.peak = peak;
    world::note_focus(current, peak);
}
